// Writes the inputs of the corpus that are no texts, by the library's own encoders.
//
// usage: make_fuzz_corpus DIRECTORY

#include "fuzz/make_corpus.h"

#include <cstdio>
#include <exception>
#include <filesystem>
#include <fstream>

#include "fuzz/encoding_of.h"
#include "tests/src/small_segment.h"

namespace {

using tolvar_fuzz::encodingOf;

std::filesystem::path directory;

ravel::IPAttribute range(std::uint32_t start, std::int64_t place) {
  ravel::IPAttribute made;
  made.startIP = start;
  made.endIP = start + 255;
  made.place = place;
  made.oper = 100;
  made.nettype = 300;
  made.flable = 70000;
  return made;
}

ravel::CodeInfo code(std::int64_t id, std::size_t length) {
  ravel::CodeInfo made;
  made.codeType = 2;
  made.ID = id;
  made.content.assign(length, 'n');
  return made;
}

void writeRecordSeeds() {
  writeSeed("tagged_decoder", "range_zero", encodingOf(ravel::IPAttribute()));
  writeSeed("tagged_decoder", "range_wide", encodingOf(range(0xC0A80001, 840000000000)));
  writeSeed("tagged_decoder", "code_short", encodingOf(code(110000, 3)));
  writeSeed("tagged_decoder", "code_long", encodingOf(code(-1, 300)));
  writeSeed("tagged_decoder", "high_tags", std::string("\x3C\xF0\x14\x05\xF1\xFF\x01\x00", 8));
}

void writeFieldSeeds() {
  const auto seed = [](const char* name, std::string bytes) {
    writeSeed("skip_field", name, bytes);
  };
  seed("numbers", std::string("\x00\x01\x11\x00\x80\x22\x00\x01\x00\x00\x3C", 11));
  seed("texts", std::string("\x16\x03"
                            "abc"
                            "\x27\x00\x00\x00\x02"
                            "xy",
                            12));
  seed("list", std::string("\x19\x00\x02\x00\x07\x0C\x2C", 7));
  seed("map", std::string("\x18\x00\x01\x06\x01k\x10\x05\x2C", 9));
  seed("nested", std::string("\x1A\x0C\x1A\x00\x05\x0B\x0B\x2C", 8));
  seed("block", std::string("\x1D\x00\x00\x03zzz\x2C", 8));
  seed("fixed", std::string("\x04\x01\x02\x03\x04\x15\x01\x02\x03\x04\x05\x06\x07\x08\x2C", 15));
  seed("negative_block", std::string("\x1D\x00\x00\xFFzzz", 7));
  std::string deep;
  for (int i = 0; i < 65; ++i) deep += std::string("\x09\x00\x01", 3);
  seed("deepest_list", deep);
  seed("deepest_record", std::string(65, '\x0A') + std::string(65, '\x0B'));
}

template <class Record>
void writeNode(const char* name, const Record& record) {
  MemNode node;
  node.CopyFrom(record);
  writeSeed("node", name, std::string(node.m_buffer, sizeof node.m_buffer));
}

void writeNodeSeeds() {
  writeNode("range", range(0x08080800, 840001001001));
  writeNode("range_zero", ravel::IPAttribute());
  writeNode("code", code(110000, 20));
  writeNode("code_longest", code(1, 113));
  writeSeed("node", "empty", std::string(128, '\0'));
}

void writeSegmentSeeds() {
  const auto seed = [](const char* name, char options, const tolvar_test::SmallSegment& segment) {
    writeSeed("segment_image", name,
              std::string(1, options) + std::string(segment.bytes.begin(), segment.bytes.end()));
  };
  seed("ready", '\x03', {});
  seed("ready_alone", '\x02', {});
  seed("ready_without_record", '\x01', {});
  tolvar_test::SmallSegment pending;
  pending.set32(0, 2);
  seed("pending", '\x03', pending);
  tolvar_test::SmallSegment unlaid;
  for (int region = 0; region < 9; ++region) unlaid.set64(unlaid.word(region, 3), 0);
  seed("no_marks", '\x03', unlaid);
  tolvar_test::SmallSegment badNode;
  badNode.set64(badNode.node(0, 1), 200);
  seed("bad_length_word", '\x13', badNode);
  tolvar_test::SmallSegment badSize;
  badSize.set64(badSize.word(4, 0), UINT64_MAX);
  seed("bad_size_word", '\x13', badSize);
  tolvar_test::SmallSegment badCount;
  badCount.set64(badCount.word(8, 4), 9);
  seed("bad_count", '\x03', badCount);
}

}  // namespace

void writeSeed(const std::string& target, const std::string& name, const std::string& content) {
  std::filesystem::create_directories(directory / target);
  std::ofstream(directory / target / name, std::ios::binary) << content;
}

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: %s DIRECTORY\n", argv[0]);
    return 2;
  }
  try {
    directory = argv[1];
    writeRecordSeeds();
    writeFieldSeeds();
    writeNodeSeeds();
    writeSegmentSeeds();
#ifdef TOLVAR_WITH_PAGES
    writePageSeeds();
#endif
  } catch (const std::exception& error) {
    std::fprintf(stderr, "make_fuzz_corpus: %s\n", error.what());
    return 1;
  }
  return 0;
}
