// Skipping fields of every type, containers and records included.

#include <gtest/gtest.h>

#include <string>

#include "tests/records/encoding_support.h"

namespace {

using qel::kVekMaxNesting;
using qel::VekDecodeException;
using qel::VekDecodeInvalidValue;
using qel::VekDecodeMismatch;
using qel::VekDecodeRequireNotExist;
using namespace tolvar_test;

/// Skips the one field `content` in two ways, with something behind it, and checks that exactly the
/// field was skipped.
void expectSkipped(const std::string& content) {
  TightReader byHead(content + "#");
  byHead.skipField();
  EXPECT_EQ(byHead.remaining(), 1u);

  TightReader byTag(content + reference::integer(77, 200));
  int marker = 0;
  byTag.read(marker, 200, true);
  EXPECT_EQ(marker, 77);
}

std::string skipFailure(const std::string& content) {
  return textOf<VekDecodeMismatch>([&] { TightReader(content).skipField(); });
}

TEST(VekSkip, AHeadOfType14Or15Throws) {
  EXPECT_EQ(skipFailure(bytes({0x0E})), "skipField with invalid type, type value:14.");
  EXPECT_EQ(skipFailure(bytes({0x0F})), "skipField with invalid type, type value:15.");
  EXPECT_EQ(skipFailure(bytes({0xFE, 0x30})), "skipField with invalid type, type value:14.");
  TightReader reader("");
  EXPECT_EQ(textOf<VekDecodeMismatch>([&] { reader.skipField(255); }),
            "skipField with invalid type, type value:255.");
}

TEST(VekSkip, AnInvalidTypeOnTheWayMakesTheFieldAbsent) {
  int number = 0;
  TightReader reader(bytes({0x0F}) + reference::integer(5, 5));
  EXPECT_EQ(textOf<VekDecodeRequireNotExist>([&] { reader.read(number, 5, true); }),
            "require field not exist, tag: 5");
}

TEST(VekSkip, FixedWidths) {
  expectSkipped(bytes({0x00, 1}));
  expectSkipped(bytes({0x01, 1, 2}));
  expectSkipped(bytes({0x02, 1, 2, 3, 4}));
  expectSkipped(bytes({0x03, 1, 2, 3, 4, 5, 6, 7, 8}));
  expectSkipped(bytes({0x04, 1, 2, 3, 4}));
  expectSkipped(bytes({0x05, 1, 2, 3, 4, 5, 6, 7, 8}));
  expectSkipped(bytes({0x0C}));
}

TEST(VekSkip, Strings) {
  expectSkipped(reference::text("", 0));
  expectSkipped(reference::text(std::string(255, 'x'), 0));
  expectSkipped(reference::text(std::string(256, 'x'), 0));
}

TEST(VekSkip, ATwoByteHead) { expectSkipped(reference::text("abc", 150)); }

TEST(VekSkip, Lists) {
  const std::string list = reference::head(9, 3);
  expectSkipped(list + reference::integer(0, 0));
  expectSkipped(list + reference::integer(3, 0) + reference::integer(1, 0) +
                reference::text("two", 0) + reference::integer(3000000000, 0));
  std::string large = list + reference::integer(300, 0);
  for (int i = 0; i < 300; ++i) large += reference::integer(i, 0);
  expectSkipped(large);
}

TEST(VekSkip, Maps) {
  const std::string map = reference::head(8, 3);
  expectSkipped(map + reference::integer(0, 0));
  expectSkipped(map + reference::integer(2, 0) + reference::text("a", 0) +
                reference::integer(1, 1) + reference::text("b", 0) + reference::text("c", 1));
}

TEST(VekSkip, NestedRecords) {
  const std::string open = reference::head(10, 3), close = reference::head(11, 0);
  expectSkipped(open + close);
  expectSkipped(open + reference::integer(1, 0) + reference::text("x", 7) + close);
  expectSkipped(open + open + reference::integer(1, 0) + close + reference::integer(2, 9) + close);
}

TEST(VekSkip, ContainersInContainers) {
  const std::string open = reference::head(10, 0), close = reference::head(11, 0);
  const std::string record = open + reference::text("name", 0) + close;
  const std::string list = reference::head(9, 1) + reference::integer(2, 0) + record + record;
  expectSkipped(reference::head(8, 2) + reference::integer(1, 0) + record + list);
  expectSkipped(reference::head(10, 3) + list + reference::integer(9, 4) + close);
}

TEST(VekSkip, ByteBlocks) {
  const std::string block = reference::head(13, 3);
  expectSkipped(block + bytes({0x00}) + reference::integer(0, 0));
  expectSkipped(block + bytes({0x00}) + reference::integer(5, 0) + "bytes");
  expectSkipped(block + bytes({0x70}) + reference::integer(5, 0) + "bytes");  // any inner tag
  expectSkipped(block + bytes({0x00}) + reference::integer(400, 0) + std::string(400, '\xFF'));
}

TEST(VekSkip, AByteBlockOfAnotherInnerTypeThrows) {
  EXPECT_EQ(skipFailure(bytes({0x3D, 0x01, 0x00, 0x05})),
            "skipField with invalid type, type value: 13, 1.");
  EXPECT_EQ(skipFailure(bytes({0x3D, 0x0F})), "skipField with invalid type, type value: 13, 15.");
}

TEST(VekSkip, CountsThatAreNoIntegersThrow) {
  for (const int type : {8, 9}) {
    const std::string head = reference::head(type, 3);
    EXPECT_EQ(textOf<VekDecodeRequireNotExist>([&] { TightReader(head).skipField(); }),
              "require field not exist, tag: 0");
    EXPECT_EQ(textOf<VekDecodeRequireNotExist>(
                  [&] { TightReader(head + reference::integer(1, 1)).skipField(); }),
              "require field not exist, tag: 0");
    EXPECT_EQ(textOf<VekDecodeMismatch>(
                  [&] { TightReader(head + reference::integer(5000000000, 0)).skipField(); }),
              "read 'Int32' type mismatch, tag: 0, get type: 3.");
  }
}

TEST(VekSkip, ANegativeCountOfElementsSkipsNone) {
  expectSkipped(reference::head(9, 3) + reference::integer(-1, 0));
  expectSkipped(reference::head(8, 3) + reference::integer(-2147483648, 0));
}

TEST(VekSkip, ANegativeByteCountEndsTheInput) {
  for (const std::int64_t count : {-1, -5, -32768, -2147483647}) {
    TightReader reader(bytes({0x3D, 0x00}) + reference::integer(count, 0) +
                       reference::integer(7, 9));
    reader.skipField();
    EXPECT_TRUE(reader.hasEnd());
    int number = 0;
    EXPECT_EQ(textOf<VekDecodeRequireNotExist>([&] { reader.read(number, 9, true); }),
              "require field not exist, tag: 9");
    EXPECT_THROW(reader.skipField(), VekDecodeException);
  }
}

TEST(VekSkip, SkipToStructEndStopsBehindItsOwnEnd) {
  const std::string close = reference::head(11, 0);
  TightReader reader(reference::integer(1, 0) + reference::head(10, 1) + reference::integer(2, 0) +
                     close + reference::integer(3, 2) + close + "#");
  reader.skipToStructEnd();
  EXPECT_EQ(reader.remaining(), 1u);
}

TEST(VekSkip, ARecordWithoutEndThrows) {
  TightReader reader(reference::head(10, 3) + reference::integer(1, 0));
  EXPECT_EQ(textOf<VekDecodeException>([&] { reader.skipField(); }),
            "buffer overflow when peekBuf, over 3.");
}

TEST(VekSkip, NestingIsFollowedToItsLimitAndNotBeyond) {
  const auto nested = [](int levels) {
    return std::string(static_cast<std::size_t>(levels), '\x3A') + reference::integer(1, 0) +
           std::string(static_cast<std::size_t>(levels), '\x0B');
  };
  const auto lists = [](int levels) {
    std::string content;
    for (int i = 0; i < levels; ++i) content += bytes({0x39, 0x00, 0x01});
    return content + reference::integer(1, 0);
  };
  expectSkipped(nested(kVekMaxNesting));
  expectSkipped(lists(kVekMaxNesting));
  for (const std::string& deeper : {nested(kVekMaxNesting + 1), lists(kVekMaxNesting + 1)}) {
    EXPECT_EQ(textOf<VekDecodeInvalidValue>([&] { TightReader(deeper).skipField(); }),
              "skipField nested deeper than 64.");
  }
}

}  // namespace
