// Reading fields: widths, types, required and optional ones, order.

#include <gtest/gtest.h>

#include <climits>
#include <string>
#include <type_traits>

#include "tests/records/encoding_support.h"

namespace {

using qel::kVekMaxStringSize;
using qel::VekDecodeException;
using qel::VekDecodeInvalidValue;
using qel::VekDecodeMismatch;
using qel::VekDecodeRequireNotExist;
using qel::VekException;
using namespace tolvar_test;

/// The value of type T that `content` holds under `tag`.
template <class T>
T value(const std::string& content, std::uint8_t tag) {
  T result{};
  TightReader(content).read(result, tag, true);
  return result;
}

template <class T, class Expected>
std::string failure(const std::string& content, std::uint8_t tag) {
  return textOf<Expected>([&] { value<T>(content, tag); });
}

static_assert(std::is_base_of_v<std::runtime_error, VekException>);
static_assert(std::is_base_of_v<VekException, VekDecodeException>);
static_assert(std::is_base_of_v<VekDecodeException, VekDecodeMismatch>);
static_assert(std::is_base_of_v<VekDecodeException, VekDecodeInvalidValue>);
static_assert(std::is_base_of_v<VekDecodeException, VekDecodeRequireNotExist>);
static_assert(std::has_virtual_destructor_v<VekException>);

TEST(VekRead, AnIntRefusesAFieldStoredAsInt64) {
  EXPECT_EQ((failure<int, VekDecodeMismatch>(reference::integer(5000000000, 4), 4)),
            "read 'Int32' type mismatch, tag: 4, get type: 3.");
}

TEST(VekRead, ALongReadsMinusOneFromOneByte) { EXPECT_EQ(value<long>(bytes({0x00, 0xFF}), 0), -1); }

TEST(VekRead, AnOptionalAbsentFieldLeavesTheTargetUnchanged) {
  const std::string content = reference::integer(1, 1) + reference::integer(2, 9);
  int number = 11;
  long wide = 12;
  unsigned int address = 3000000000u;
  std::string text = "kept";
  TightReader reader(content);
  reader.read(number, 2, false);
  reader.read(wide, 3, false);
  reader.read(address, 4, false);
  reader.read(text, 5, false);
  EXPECT_EQ(number, 11);
  EXPECT_EQ(wide, 12);
  EXPECT_EQ(address, 3000000000u);
  EXPECT_EQ(text, "kept");
}

TEST(VekRead, ARequiredAbsentFieldThrows) {
  const std::string content = reference::integer(1, 1) + reference::integer(2, 9);
  EXPECT_EQ((failure<int, VekDecodeRequireNotExist>(content, 2)),
            "require field not exist, tag: 2");
  EXPECT_EQ((failure<long, VekDecodeRequireNotExist>(content, 10)),
            "require field not exist, tag: 10");
  EXPECT_EQ((failure<unsigned int, VekDecodeRequireNotExist>("", 0)),
            "require field not exist, tag: 0");
  EXPECT_EQ((failure<std::string, VekDecodeRequireNotExist>(content, 255)),
            "require field not exist, tag: 255");
}

TEST(VekRead, FieldsAreOnlyFoundForwards) {
  TightReader reader(reference::integer(20, 2) + reference::integer(30, 3) +
                     reference::integer(40, 4));
  int number = 0;
  reader.read(number, 3, true);
  EXPECT_EQ(number, 30);
  EXPECT_EQ(textOf<VekDecodeRequireNotExist>([&] { reader.read(number, 2, true); }),
            "require field not exist, tag: 2");
  reader.read(number, 2, false);
  EXPECT_EQ(number, 30);
  reader.read(number, 4, true);
  EXPECT_EQ(number, 40) << "a search in vain moves over no larger tag";
}

TEST(VekRead, NarrowerIntegersAreWidenedWithTheirSign) {
  EXPECT_EQ(value<int>(bytes({0x00, 0x80}), 0), -128);
  EXPECT_EQ(value<int>(bytes({0x01, 0x80, 0x00}), 0), -32768);
  EXPECT_EQ(value<int>(bytes({0x02, 0x80, 0x00, 0x00, 0x00}), 0), INT_MIN);
  EXPECT_EQ(value<int>(bytes({0x0C}), 0), 0);
  EXPECT_EQ(value<long>(bytes({0x01, 0xFF, 0x7F}), 0), -129);
  EXPECT_EQ(value<long>(bytes({0x02, 0xFF, 0xFF, 0xFF, 0xFF}), 0), -1);
  EXPECT_EQ(value<long>(bytes({0x03, 0x80, 0, 0, 0, 0, 0, 0, 0}), 0), LONG_MIN);
  EXPECT_EQ(value<long>(bytes({0x0C}), 0), 0);
  EXPECT_EQ(value<int>(bytes({0x02, 0x00, 0x00, 0x00, 0x05}), 0), 5)
      << "a form wider than needed is accepted";
}

TEST(VekRead, UnsignedTakesTheLowHalf) {
  EXPECT_EQ(value<unsigned int>(reference::integer(3000000000, 1), 1), 3000000000u);
  EXPECT_EQ(value<unsigned int>(bytes({0x00, 0xFF}), 0), 4294967295u);
  EXPECT_EQ(value<unsigned int>(bytes({0x03, 0, 0, 0, 1, 0, 0, 0, 2}), 0), 2u);
}

TEST(VekRead, EveryOtherTypeIsAMismatchThatNamesTagAndType) {
  for (int type = 0; type < 16; ++type) {
    const std::string content = reference::head(type, 200) + std::string(16, '\0');
    const std::string tail = " type mismatch, tag: 200, get type: " + std::to_string(type) + ".";
    if (type == 11) continue;  // closes a record: the field counts as absent
    if (type > 2 && type != 12) {
      EXPECT_EQ((failure<int, VekDecodeMismatch>(content, 200)), "read 'Int32'" + tail);
    }
    if (type > 3 && type != 12) {
      EXPECT_EQ((failure<long, VekDecodeMismatch>(content, 200)), "read 'Int64'" + tail);
      EXPECT_EQ((failure<unsigned int, VekDecodeMismatch>(content, 200)), "read 'Int64'" + tail);
    }
    if (type != 6 && type != 7) {
      EXPECT_EQ((failure<std::string, VekDecodeMismatch>(content, 200)), "read 'string'" + tail);
    }
  }
}

TEST(VekRead, ARecordsEndHidesWhatFollows) {
  const std::string content =
      reference::integer(1, 1) + reference::head(11, 0) + reference::integer(5, 5);
  TightReader reader(content);
  EXPECT_FALSE(reader.skipToTag(5));
  EXPECT_FALSE(reader.skipToTag(5)) << "the closing head stays where it is";
  reader.skipToStructEnd();
  EXPECT_TRUE(reader.skipToTag(5));
}

TEST(VekRead, StringsComeBackByteForByte) {
  const std::string zeros("a\0b\0", 4);
  EXPECT_EQ(value<std::string>(reference::text(zeros, 3), 3), zeros);
  EXPECT_EQ(value<std::string>(reference::text("", 3), 3), "");
  const std::string large(70000, '\xE5');
  EXPECT_EQ(value<std::string>(reference::text(large, 3), 3), large);
  EXPECT_EQ(value<std::string>(bytes({0x37, 0, 0, 0, 2}) + "ab", 3), "ab")
      << "a short string with the long length";
}

TEST(VekRead, AStringLengthBeyondTheLimitIsRefused) {
  EXPECT_EQ(
      (failure<std::string, VekDecodeInvalidValue>(bytes({0xF7, 200, 0x06, 0x40, 0, 1}), 200)),
      "invalid string size, tag: 200, size: 104857601");
  EXPECT_EQ((failure<std::string, VekDecodeInvalidValue>(bytes({0x27, 0xFF, 0xFF, 0xFF, 0xFF}), 2)),
            "invalid string size, tag: 2, size: -1");
}

TEST(VekRead, AStringLongerThanTheInputTakesNoMemory) {
  static_assert(kVekMaxStringSize == 104857600);
  std::string text = "kept";
  const std::size_t capacity = text.capacity();
  TightReader longest(bytes({0x27, 0x06, 0x40, 0x00, 0x00}) + "abc");
  EXPECT_EQ(textOf<VekDecodeException>([&] { longest.read(text, 2, true); }),
            "buffer overflow when peekBuf, over 8.");
  TightReader shorter(bytes({0x26, 0xFF}) + "abc");
  EXPECT_EQ(textOf<VekDecodeException>([&] { shorter.read(text, 2, true); }),
            "buffer overflow when peekBuf, over 5.");
  EXPECT_EQ(text, "kept");
  EXPECT_EQ(text.capacity(), capacity);
}

TEST(VekRead, ATruncatedBodyIsAnOverflow) {
  EXPECT_EQ((failure<int, VekDecodeException>(bytes({0x02, 1, 2, 3}), 0)),
            "buffer overflow when peekBuf, over 4.");
  EXPECT_EQ((failure<long, VekDecodeException>(bytes({0x03, 1, 2, 3, 4, 5, 6, 7}), 0)),
            "buffer overflow when peekBuf, over 8.");
  EXPECT_EQ((failure<std::string, VekDecodeException>(bytes({0x06}), 0)),
            "buffer overflow when peekBuf, over 1.");
}

TEST(VekRead, ATruncatedFieldOnTheWayCountsAsAbsent) {
  EXPECT_EQ((failure<int, VekDecodeRequireNotExist>(bytes({0x07, 0x00, 0x00}), 3)),
            "require field not exist, tag: 3");
  EXPECT_EQ((failure<int, VekDecodeRequireNotExist>(bytes({0x0D, 0x01, 0x02}), 3)),
            "require field not exist, tag: 3");
}

}  // namespace
