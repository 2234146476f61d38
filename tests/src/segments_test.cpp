// The three shared segments: what a start makes of them and says about it.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cctype>
#include <cstring>
#include <sstream>

#include "tests/src/store_fixture.h"

namespace {

using namespace tolvar_test;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr std::size_t kDefaultTotal = 73695648;
constexpr std::size_t kBlockBytes[9] = {67108896, 131104, 131104, 262176, 4194336,
                                        1048608,  524320, 262176, 32800};
constexpr std::size_t kNodes[9] = {524288, 1024, 1024, 2048, 32768, 8192, 4096, 2048, 256};

/// The texts of the log lines; every line begins with the client's name and a line number.
std::vector<std::string> texts(const std::string& output) {
  std::vector<std::string> found;
  std::istringstream in(output);
  for (std::string line; std::getline(in, line);) {
    const std::string name = "TolvarAPI:";
    const std::size_t end = line.find(']');
    EXPECT_EQ(line.rfind(name, 0), 0u) << line;
    EXPECT_NE(end, std::string::npos) << line;
    if (end == std::string::npos) continue;
    EXPECT_GT(end, name.size()) << line;
    for (std::size_t i = name.size(); i < end; ++i) EXPECT_TRUE(std::isdigit(line[i])) << line;
    found.push_back(line.substr(end + 1));
  }
  return found;
}

/// Lines of laying a segment.
std::vector<std::string> layingTexts(StoreClient& client, int segment, int connected) {
  std::vector<std::string> lines;
  const auto* start = static_cast<const char*>(client.access.shm(segment).getPointer());
  std::size_t offset = 24 + kBlockBytes[0];
  for (int k = 0; k < 8; ++k) {
    offset += 8;
    std::ostringstream line;
    line << "create code shm, shm_index=" << segment << ", code_index=" << k
         << ", shm_address=" << static_cast<const void*>(start)
         << ", shm_total_size=73695648, shm_offset=" << offset
         << ", address=" << static_cast<const void*>(start + offset)
         << ", size=" << kBlockBytes[k + 1];
    lines.push_back(line.str());
    offset += kBlockBytes[k + 1];
  }
  lines.push_back("create share memory done. shm_index=" + std::to_string(segment) +
                  ", conncect_success=" + std::to_string(connected));
  return lines;
}

void append(std::vector<std::string>* lines, const std::vector<std::string>& more) {
  lines->insert(lines->end(), more.begin(), more.end());
}

/// A new segment byte by byte: nothing but size words and vector heads.
void expectLaid(const RawSegment& segment, std::uint32_t status) {
  ASSERT_EQ(segment.size(), kDefaultTotal);
  EXPECT_EQ(segment.ipStatus(), status);
  EXPECT_EQ(segment.codeStatus(), status);
  EXPECT_EQ(segment.bytes(8, 8), std::string(8, '\0'));
  const std::string zeros(1 << 20, '\0');
  std::size_t offset = 16;
  for (int region = 0; region < 9; ++region) {
    SCOPED_TRACE(region);
    EXPECT_EQ(segment.word64(offset), kBlockBytes[region]);
    EXPECT_EQ(segment.word64(offset + 8), kBlockBytes[region]);
    EXPECT_EQ(segment.word64(offset + 16), kNodes[region]);
    EXPECT_EQ(segment.word64(offset + 24), 128u);
    EXPECT_EQ(segment.word64(offset + 32), 0u);
    const std::size_t end = offset + 8 + kBlockBytes[region];
    for (std::size_t at = offset + 40; at < end; at += zeros.size()) {
      const std::size_t count = std::min(zeros.size(), end - at);
      ASSERT_EQ(std::memcmp(segment.at(at, count), zeros.data(), count), 0) << at;
    }
    offset = end;
  }
  EXPECT_EQ(segment.bytes(offset, kDefaultTotal - offset),
            std::string(kDefaultTotal - offset, '\0'));
}

TEST(Segments, FirstProcessOnACleanHost) {
  ShmKeys keys;
  StoreClient client;
  client.open(keys);

  std::vector<std::string> expected = {"GetShareMemorySize failed. use default shm_size.",
                                       "total share memory size is 70MB."};
  append(&expected, layingTexts(client, 0, 1));
  append(&expected, layingTexts(client, 1, 1));
  append(&expected, {"all share memory is NOT usable, use first block: 0",
                     "choose share memory index done. ready_shm_index = 0"});
  EXPECT_EQ(texts(client.out), expected);
  EXPECT_EQ(client.err, "");

  const RawSegment size(keys.size());
  EXPECT_EQ(size.size(), 136u);
  EXPECT_EQ(size.mode(), 0660u);
  EXPECT_TRUE(size.sizeMarksRight());
  EXPECT_EQ(size.recordedSize(), kDefaultTotal);

  for (const key_t key : {keys.data0(), keys.data1()}) {
    const RawSegment data(key);
    EXPECT_EQ(data.mode(), 0660u);
    expectLaid(data, 0);
  }
  EXPECT_EQ(client.access.hasInitialized(), 0);
  EXPECT_EQ(client.access.vectorIP(), &client.access.ipVector(0));
  for (int k = 0; k < 8; ++k)
    EXPECT_EQ(client.access.codeVectorInUse(k), &client.access.codeVector(k, 0));
  EXPECT_EQ(client.access.cltMd5(), "0");
  ravel::IPInfo info;
  EXPECT_FALSE(client.api.getIPInfo(0, &info));
}

TEST(Segments, SecondProcessConnectsBothAndFindsNoneReady) {
  ShmKeys keys;
  StoreClient first;
  first.open(keys);
  StoreClient second;
  second.open(keys);
  EXPECT_THAT(
      texts(second.out),
      ElementsAre("total share memory size is 70MB.", "connect share memory success. shm_index=0",
                  "connect share memory success. shm_index=1",
                  "all share memory is NOT usable, use first block: 0",
                  "choose share memory index done. ready_shm_index = 0"));
  EXPECT_EQ(second.err, "");
  EXPECT_EQ(second.access.hasInitialized(), 0);
}

TEST(Segments, SecondProcessPicksTheReadySegment) {
  ShmKeys keys;
  StoreClient writer;
  writer.open(keys);
  const TestTable tables[2] = {smallTable(1), smallTable(2)};
  writer.fill(0, tables[0]);
  writer.fill(1, tables[1]);

  struct Case {
    std::uint32_t heads[2][2];
    int chosen;  // -1: none
  };
  const Case cases[] = {
      {{{1, 1}, {1, 1}}, 0},  // both: the first
      {{{1, 1}, {2, 2}}, 0},  {{{2, 2}, {1, 1}}, 1},  {{{0, 0}, {1, 1}}, 1},
      {{{3, 3}, {1, 1}}, 1},  {{{1, 2}, {1, 1}}, 1},  {{{2, 1}, {1, 1}}, 1},
      {{{1, 0}, {0, 1}}, -1}, {{{2, 2}, {3, 3}}, -1}, {{{4, 1}, {1, 0xFFFFFFFFu}}, -1},
  };
  for (const Case& tried : cases) {
    SCOPED_TRACE(&tried - cases);
    for (int i = 0; i < 2; ++i) writer.announce(i, tried.heads[i][0], tried.heads[i][1]);
    StoreClient reader;
    reader.open(keys);
    EXPECT_EQ(reader.err, "");
    const std::vector<std::string> lines = texts(reader.out);
    ASSERT_GE(lines.size(), 5u);
    EXPECT_EQ(lines[1], "connect share memory success. shm_index=0");
    EXPECT_EQ(lines[2], "connect share memory success. shm_index=1");
    const int index = std::max(tried.chosen, 0);
    EXPECT_EQ(reader.access.vectorIP(), &reader.access.ipVector(index));
    for (int k = 0; k < 8; ++k)
      EXPECT_EQ(reader.access.codeVectorInUse(k), &reader.access.codeVector(k, index));
    if (tried.chosen < 0) {
      EXPECT_EQ(reader.access.hasInitialized(), 0);
      EXPECT_EQ(lines[3], "all share memory is NOT usable, use first block: 0");
    } else {
      EXPECT_TRUE(answersFrom(reader, tables[tried.chosen]));
      EXPECT_EQ(lines[3],
                "choose a ready share memory: " + std::to_string(index) + "the param is:1|1");
      EXPECT_EQ(lines[4], "ip_size=5, mem_len=180, md5=" + reader.access.cltMd5());
    }
    EXPECT_EQ(lines.back(),
              "choose share memory index done. ready_shm_index = " + std::to_string(index));
    // Reading leaves the heads as they were.
    for (int i = 0; i < 2; ++i) {
      const RawSegment raw(i == 0 ? keys.data0() : keys.data1());
      EXPECT_EQ(raw.ipStatus(), tried.heads[i][0]);
      EXPECT_EQ(raw.codeStatus(), tried.heads[i][1]);
    }
  }
}

TEST(Segments, SizeSegmentIsMissingUnlessAllSixteenWordsAreRight) {
  ShmKeys keys;
  StoreClient client;
  client.access.shmKey(2) = keys.size();
  std::size_t size = 77;
  EXPECT_FALSE(client.access.ReadShareMemorySize(&size)) << "just created";
  EXPECT_FALSE(client.access.ReadShareMemorySize(&size)) << "all zero";
  EXPECT_EQ(size, 77u);

  client.access.WriteShareMemorySize(123456789);
  RawSegment raw(keys.size());
  ASSERT_EQ(raw.size(), 136u);
  EXPECT_TRUE(raw.sizeMarksRight());
  EXPECT_EQ(raw.recordedSize(), 123456789u);
  EXPECT_TRUE(client.access.ReadShareMemorySize(&size));
  EXPECT_EQ(size, 123456789u);

  for (std::size_t word = 0; word < 16; ++word) {
    for (const std::uint64_t wrong : {std::uint64_t{0}, std::uint64_t{20120703},
                                      std::uint64_t{20120704} | std::uint64_t{1} << 32}) {
      raw.write64(8 * word, wrong);
      size = 77;
      EXPECT_FALSE(client.access.ReadShareMemorySize(&size)) << word;
      EXPECT_EQ(size, 77u);
    }
    raw.write64(8 * word, 20120704);
  }
  EXPECT_TRUE(client.access.ReadShareMemorySize(&size));
}

TEST(Segments, InvalidSizeRecordIsOverwrittenWithTheDefaultTotal) {
  ShmKeys keys;
  publishImage(keys, smallTable(1));
  struct Case {
    std::size_t offset;
    std::uint64_t word;
  };
  // A wrong mark; then sizes that no data segment can have.
  for (const Case& damage :
       {Case{8 * 7, 20120703}, Case{128, 0}, Case{128, 16}, Case{128, 73695607},
        Case{128, UINT64_MAX}, Case{128, std::uint64_t{1} << 41}}) {
    SCOPED_TRACE(damage.word);
    RawSegment raw(keys.size());
    raw.write64(damage.offset, damage.word);
    StoreClient client;
    client.open(keys);
    EXPECT_EQ(texts(client.out).front(), "GetShareMemorySize failed. use default shm_size.");
    EXPECT_TRUE(raw.sizeMarksRight());
    EXPECT_EQ(raw.recordedSize(), kDefaultTotal);
    EXPECT_TRUE(answersFrom(client, smallTable(1)));
  }
}

TEST(Segments, DamagedFirstVectorMarkIsLaidAnewWithBothStatuses3) {
  ShmKeys keys;
  publishImage(keys, smallTable(1));
  RawSegment damaged(keys.data0());
  damaged.write64(24 + 16, 127);

  StoreClient client;
  client.open(keys);
  expectLaid(damaged, 3);
  EXPECT_EQ(damaged.id(), RawSegment::idBehind(keys.data0())) << "laid in place";
  EXPECT_EQ(texts(client.err).back(), "connect share memory failed, will recreate it. shm_index=0");
  std::vector<std::string> expected = {"total share memory size is 70MB."};
  append(&expected, layingTexts(client, 0, 0));
  append(&expected, {"connect share memory success. shm_index=1",
                     "choose a ready share memory: 1the param is:1|1",
                     "ip_size=5, mem_len=180, md5=" + client.access.cltMd5(),
                     "choose share memory index done. ready_shm_index = 1"});
  EXPECT_EQ(texts(client.out), expected);
  EXPECT_TRUE(answersFrom(client, smallTable(1)));
}

TEST(Segments, PublishedTableAndBothCodeHalvesReadBackByteByByte) {
  ShmKeys keys;
  std::mt19937_64 random(20120704);
  const TestTable table = randomTable(random, 700, 40);
  publishImage(keys, table);
  for (const key_t key : {keys.data0(), keys.data1()}) {
    const RawSegment raw(key);
    EXPECT_EQ(raw.ipStatus(), 1u);
    EXPECT_EQ(raw.codeStatus(), 1u);
    const auto regions = raw.regions();
    for (int region = 0; region < 9; ++region) {
      const RawRegion& found = regions[static_cast<std::size_t>(region)];
      EXPECT_EQ(found.sizeWord, kBlockBytes[region]);
      EXPECT_EQ(found.size, kBlockBytes[region]);
      EXPECT_EQ(found.capacity, kNodes[region]);
      EXPECT_EQ(found.nodeSize, 128u);
      EXPECT_EQ(found.count, region == 0 ? table.ranges.size() : 40u);
      // Behind the last node every slot is zero.
      const std::size_t free = found.node(found.count);
      EXPECT_EQ(raw.bytes(free, 1280), std::string(1280, '\0'));
    }
    EXPECT_EQ(raw.ranges(), rawRanges(table));
    for (int k = 0; k < 8; ++k) EXPECT_EQ(raw.codes(k), rawCodes(table, k)) << k;
  }
}

TEST(Segments, UnsortedNodesAreSortedForLookups) {
  ShmKeys keys;
  TestTable table = smallTable(3);
  std::reverse(table.ranges.begin(), table.ranges.end());
  publishImage(keys, table);
  StoreClient client;
  client.open(keys);
  EXPECT_TRUE(answersFrom(client, table)) << "digest in node order, lookups in address order";
  const ravel::vIPProperty& loaded = client.access.ipQueryVec();
  ASSERT_EQ(loaded.size(), 5u);
  for (std::size_t i = 0; i < 5; ++i) {
    EXPECT_EQ(loaded[i].startIP, 0x01000000u * (i + 1));
    EXPECT_EQ(loaded[i].timesTamp, 0u);
    EXPECT_EQ(loaded[i].sequence, 0u);
  }
}

TEST(Segments, LaterCodeReplacesAnEarlierOneWithTheSameId) {
  ShmKeys keys;
  TestTable table = smallTable(3);
  ravel::CodeInfo again = table.codes[2][0];
  again.content = "renamed";
  table.codes[2].push_back(again);
  publishImage(keys, table);
  StoreClient client;
  client.open(keys);
  EXPECT_EQ(client.access.GetCodeInfoById(2, 1), "renamed");
  EXPECT_EQ(client.access.codeQueryMap(2).size(), 3u);
}

TEST(Segments, SecondOpenOfOneClientForgetsTheOldTable) {
  ShmKeys oldKeys;
  ShmKeys newKeys;
  publishImage(oldKeys, smallTable(1));
  publishImage(newKeys, smallTable(2));
  StoreClient client;
  client.open(oldKeys);
  ASSERT_TRUE(answersFrom(client, smallTable(1)));
  client.open(newKeys);
  EXPECT_TRUE(answersFrom(client, smallTable(2)));
  EXPECT_EQ(client.access.shmKey(0), newKeys.data0());
  EXPECT_EQ(client.access.shmKey(1), newKeys.data1());
  EXPECT_EQ(client.access.shmKey(2), newKeys.size());
}

TEST(Segments, HeadIsTheFirst16Bytes) {
  ShmKeys keys;
  StoreClient client;
  RawSegment::create(keys.data1(), 4096);
  client.access.shm(1).init(4096, keys.data1());
  RawSegment raw(keys.data1());
  MemoryHead head;
  head.ip_usable = kMemoryStatusPending;
  head.code_usable = kMemoryStatusUnknown;
  head.pad0 = 0x10;
  head.pad5 = 0x15;
  client.access.WriteMemoryHead(1, head);
  EXPECT_EQ(raw.bytes(0, 17), std::string("\x02\0\0\0\x03\0\0\0\x10\0\0\0\0\x15\0\0\0", 17));
  raw.write32(4, 0xCAFE);
  MemoryHead read;
  client.access.ReadMemoryHead(1, &read);
  EXPECT_EQ(read.ip_usable, 2u);
  EXPECT_EQ(read.code_usable, 0xCAFEu);
  EXPECT_EQ(read.pad0, 0x10);
}

TEST(CalculateNextSize, GivesPowersOfTwo) {
  const auto next = [](std::size_t n) { return tolvar::ClientTestAccess::CalculateNextSize(n); };
  EXPECT_EQ(next(4096), 4096u);
  EXPECT_EQ(next(4097), 8192u);
  EXPECT_EQ(next(0), 0u);
  EXPECT_EQ(next(1), 1u);
  EXPECT_EQ(next(3), 4u);
  EXPECT_EQ(next(300000), 524288u);
  EXPECT_EQ(next((std::size_t{1} << 62) + 1), std::size_t{1} << 63);
  EXPECT_EQ(next(std::size_t{1} << 63), std::size_t{1} << 63);
}

TEST(CalculateNextSizeDeathTest, AbortsWhereNoPowerOfTwoIsLeft) {
  EXPECT_DEATH(tolvar::ClientTestAccess::CalculateNextSize((std::size_t{1} << 63) + 1),
               "Assertion `result >= origin' failed");
}

TEST(ProlatePointer, TakesOverAndLaysARegion) {
  std::uint64_t words[4] = {16, 7, 7, 7};
  ProlatePointer region;
  EXPECT_EQ(region.GetPtr(), nullptr);
  EXPECT_EQ(region.Size(), 0u);
  EXPECT_EQ(region.Data(), nullptr);
  region.ReSet(words);
  EXPECT_EQ(region.GetPtr(), words);
  EXPECT_EQ(region.Size(), 16u);
  EXPECT_EQ(region.Data(), words + 1);

  region.ReSet(words + 2, 8);
  EXPECT_EQ(region.GetPtr(), words + 1);
  EXPECT_EQ(region.Size(), 8u);
  EXPECT_EQ(region.Data(), words + 2);
  EXPECT_EQ(words[1], 8u);
  EXPECT_EQ(words[2], 7u);

  const ProlatePointer copy = region;
  EXPECT_EQ(copy.GetPtr(), words + 1);
  EXPECT_EQ(copy.Size(), 8u);
  EXPECT_EQ(copy.Data(), words + 2);
}

TEST(ProlatePointerDeathTest, NullAborts) {
  ProlatePointer region;
  EXPECT_DEATH(region.ReSet(nullptr), "TolvarAPI:[0-9]+: .*Assertion `ptr != __null' failed");
  EXPECT_DEATH(region.ReSet(nullptr, 8), "TolvarAPI:[0-9]+: .*Assertion `data != __null' failed");
}

}  // namespace
