// Input that is cut, damaged or made to hurt: every outcome is a value or a VekDecodeException, no
// byte beyond the input is read, and neither memory nor time grows beyond the input's size.

#include <gtest/gtest.h>

#include <cstdint>
#include <random>
#include <string>

#include "records/records.h"
#include "tests/records/encoding_support.h"

namespace {

using qel::VekDecodeException;
using qel::VekDecodeInvalidValue;
using qel::VekDecodeRequireNotExist;
using ravel::CodeInfo;
using ravel::IPAttribute;
using namespace tolvar_test;

IPAttribute sampleRange() {
  IPAttribute range;
  range.startIP = 0x01020304;
  range.endIP = 0xFFFFFFFE;
  range.place = 156110108001;
  range.extend = 300;
  range.oper = 100025;
  range.nettype = 3000000000u;
  range.flable = 7;
  return range;
}

CodeInfo sampleCode(std::size_t length) {
  CodeInfo code;
  code.codeType = 4;
  code.ID = 156110108001;
  code.content.assign(length, 'n');
  return code;
}

/// Everything that a reader can do with untrusted bytes; what it throws is a VekDecodeException.
void readInEveryWay(const std::string& content) {
  const auto attempt = [&](auto act) {
    TightReader reader(content);
    try {
      act(reader);
    } catch (const VekDecodeException&) {
    }
  };
  attempt([](Reader& in) { IPAttribute().readFrom(in); });
  attempt([](Reader& in) { CodeInfo().readFrom(in); });
  attempt([](Reader& in) { in.skipToStructEnd(); });
  attempt([](Reader& in) { in.skipToTag(255); });
  attempt([](Reader& in) {
    while (!in.hasEnd()) in.skipField();
  });
  attempt([](Reader& in) {
    std::string text;
    for (int tag = 0; tag < 256; ++tag) in.read(text, static_cast<std::uint8_t>(tag), false);
  });
}

TEST(HostileInput, EveryTruncationOfARecordIsRefused) {
  const std::string range = encoded(sampleRange());
  for (std::size_t size = 0; size < range.size(); ++size) {
    TightReader reader(range.substr(0, size));
    EXPECT_THROW(IPAttribute().readFrom(reader), VekDecodeException) << size;
  }
  for (const std::size_t length : {0u, 3u, 255u, 256u, 600u}) {
    const std::string code = encoded(sampleCode(length));
    for (std::size_t size = 0; size < code.size(); ++size) {
      TightReader reader(code.substr(0, size));
      EXPECT_THROW(CodeInfo().readFrom(reader), VekDecodeException) << size;
    }
  }
}

TEST(HostileInput, EveryValueOfEveryByteIsSurvived) {
  for (const std::string& original :
       {encoded(sampleRange()), encoded(sampleCode(3)), encoded(sampleCode(256))}) {
    for (std::size_t at = 0; at < original.size(); ++at) {
      std::string damaged = original;
      for (int value = 0; value < 256; value += at < 64 ? 1 : 51) {
        damaged[at] = static_cast<char>(value);
        readInEveryWay(damaged);
      }
    }
  }
}

TEST(HostileInput, RandomDamageIsSurvived) {
  std::mt19937 random(20120704);
  const std::string originals[] = {encoded(sampleRange()), encoded(sampleCode(20)),
                                   encoded(sampleCode(300))};
  for (int round = 0; round < 8000; ++round) {
    std::string damaged = originals[random() % 3];
    for (auto times = 1 + random() % 5; times > 0 && !damaged.empty(); --times) {
      const std::size_t at = random() % damaged.size();
      switch (random() % 4) {
        case 0: damaged[at] = static_cast<char>(random()); break;
        case 1: damaged.erase(at, 1 + random() % 4); break;
        case 2: damaged.insert(at, 1 + random() % 4, static_cast<char>(random())); break;
        default: damaged.resize(at); break;
      }
    }
    readInEveryWay(damaged);
  }
}

TEST(HostileInput, RandomBytesAreSurvived) {
  std::mt19937 random(7);
  for (int round = 0; round < 8000; ++round) {
    std::string content(random() % 100, '\0');
    for (char& byte : content) byte = static_cast<char>(random());
    readInEveryWay(content);
  }
}

TEST(HostileInput, NestingBombsAreRefusedNotFollowed) {
  constexpr int kLevels = 1000000;
  std::string records(kLevels, '\x0A');
  std::string lists, maps;
  for (int i = 0; i < kLevels; ++i) {
    lists += bytes({0x09, 0x00, 0x01});
    maps += bytes({0x08, 0x00, 0x01});
  }
  for (const std::string& bomb : {records, lists, maps}) {
    EXPECT_EQ(textOf<VekDecodeInvalidValue>([&] { TightReader(bomb).skipField(); }),
              "skipField nested deeper than 64.");
    int number = 0;
    TightReader reader(bomb);
    EXPECT_EQ(textOf<VekDecodeRequireNotExist>([&] { reader.read(number, 9, true); }),
              "require field not exist, tag: 9");
  }
}

TEST(HostileInput, HugeCountsEndWithTheInput) {
  for (const int type : {8, 9}) {
    const std::string content =
        reference::head(type, 1) + reference::integer(2147483647, 0) + std::string(3, '\x0C');
    EXPECT_EQ(textOf<VekDecodeException>([&] { TightReader(content).skipField(); }),
              "buffer overflow when peekBuf, over 9.");
  }
}

TEST(HostileInput, HugeCountsBelowHugeCountsCostNoMoreThanTheInput) {
  // Were a count believed, this would be 2147483647 to the power of 64 steps.
  std::string content;
  for (int level = 0; level < 64; ++level)
    content += reference::head(9, 1) + reference::integer(2147483647, 0);
  content += std::string(1000, '\x0C');
  EXPECT_THROW(TightReader(content).skipField(), VekDecodeException);
}

TEST(HostileInput, LengthsBeyondTheInputAreRevealedAtOnce) {
  for (const std::string& content :
       {bytes({0x16, 0xFF, 'a'}), bytes({0x17, 0xFF, 0xFF, 0xFF, 0xFF, 'a'}),
        bytes({0x1D, 0x00, 0x02, 0x7F, 0xFF, 0xFF, 0xFF, 'a'}), bytes({0x13, 1, 2})}) {
    TightReader reader(content);
    reader.skipField();
    EXPECT_TRUE(reader.hasEnd());
    EXPECT_FALSE(reader.skipToTag(5));
    EXPECT_THROW(reader.skipField(), VekDecodeException);
  }
}

}  // namespace
