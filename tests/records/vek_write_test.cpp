// The bytes of every field that the writer makes.

#include <gtest/gtest.h>

#include <climits>
#include <string>

#include "tests/records/encoding_support.h"

namespace {

using qel::kVekMaxStringSize;
using qel::VekDecodeInvalidValue;
using namespace tolvar_test;

template <class T>
std::string field(T value, std::uint8_t tag) {
  return written([&](Writer& out) { out.write(value, tag); });
}

TEST(VekWrite, ZeroCostsTheHeadOnlyAndOneTwoBytes) {
  EXPECT_EQ(field(0, 3), bytes({0x3C}));
  EXPECT_EQ(field(1, 3), bytes({0x30, 0x01}));
}

TEST(VekWrite, Long128And129BelowZeroTakeTwoBytes) {
  EXPECT_EQ(field(128L, 0), bytes({0x01, 0x00, 0x80}));
  EXPECT_EQ(field(-129L, 0), bytes({0x01, 0xFF, 0x7F}));
}

TEST(VekWrite, LargeUnsignedTakesEightBytes) {
  EXPECT_EQ(field(3000000000u, 1), bytes({0x13, 0x00, 0x00, 0x00, 0x00, 0xB2, 0xD0, 0x5E, 0x00}));
}

TEST(VekWrite, ATagOf15OrMoreTakesTwoHeadBytes) {
  EXPECT_EQ(field(char{5}, 20), bytes({0xF0, 0x14, 0x05}));
  EXPECT_EQ(field(char{5}, 14), bytes({0xE0, 0x05}));
  EXPECT_EQ(field(char{5}, 15), bytes({0xF0, 0x0F, 0x05}));
  EXPECT_EQ(field(0, 255), bytes({0xFC, 0xFF}));
}

TEST(VekWrite, AStringOf255BytesHasAOneByteLengthAndOneOf256Four) {
  const std::string shorter(255, 'a'), longer(256, 'a');
  EXPECT_EQ(field(shorter, 2), bytes({0x26, 0xFF}) + shorter);
  EXPECT_EQ(field(longer, 2), bytes({0x27, 0x00, 0x00, 0x01, 0x00}) + longer);
  EXPECT_EQ(field(std::string(), 2), bytes({0x26, 0x00}));
}

TEST(VekWrite, IntegersNarrowToTheShortestForm) {
  EXPECT_EQ(field(127L, 0), bytes({0x00, 0x7F}));
  EXPECT_EQ(field(-128L, 0), bytes({0x00, 0x80}));
  EXPECT_EQ(field(32767L, 0), bytes({0x01, 0x7F, 0xFF}));
  EXPECT_EQ(field(32768L, 0), bytes({0x02, 0x00, 0x00, 0x80, 0x00}));
  EXPECT_EQ(field(-32768L, 0), bytes({0x01, 0x80, 0x00}));
  EXPECT_EQ(field(-32769L, 0), bytes({0x02, 0xFF, 0xFF, 0x7F, 0xFF}));
  EXPECT_EQ(field(2147483647L, 0), bytes({0x02, 0x7F, 0xFF, 0xFF, 0xFF}));
  EXPECT_EQ(field(2147483648L, 0), bytes({0x03, 0x00, 0x00, 0x00, 0x00, 0x80, 0x00, 0x00, 0x00}));
  EXPECT_EQ(field(-2147483648L, 0), bytes({0x02, 0x80, 0x00, 0x00, 0x00}));
  EXPECT_EQ(field(-2147483649L, 0), bytes({0x03, 0xFF, 0xFF, 0xFF, 0xFF, 0x7F, 0xFF, 0xFF, 0xFF}));
  EXPECT_EQ(field(LONG_MIN, 0), bytes({0x03, 0x80, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00}));
  EXPECT_EQ(field(LONG_MAX, 0), bytes({0x03, 0x7F, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF}));
}

TEST(VekWrite, EveryDeclaredTypeNarrowsAlike) {
  for (int value = SHRT_MIN; value <= SHRT_MAX; ++value) {
    const std::string expected = reference::integer(value, 6);
    ASSERT_EQ(field(static_cast<short>(value), 6), expected) << value;
    ASSERT_EQ(field(value, 6), expected) << value;
    ASSERT_EQ(field(static_cast<long>(value), 6), expected) << value;
    if (value >= 0) {
      ASSERT_EQ(field(static_cast<unsigned int>(value), 6), expected) << value;
    }
    if (value >= -128 && value <= 127) {
      ASSERT_EQ(field(static_cast<char>(value), 6), expected) << value;
    }
  }
}

TEST(VekWrite, UnsignedValuesFrom2To31OnTakeTheWideForm) {
  EXPECT_EQ(field(2147483647u, 1), bytes({0x12, 0x7F, 0xFF, 0xFF, 0xFF}));
  EXPECT_EQ(field(2147483648u, 1), bytes({0x13, 0x00, 0x00, 0x00, 0x00, 0x80, 0x00, 0x00, 0x00}));
  EXPECT_EQ(field(4294967295u, 1), bytes({0x13, 0x00, 0x00, 0x00, 0x00, 0xFF, 0xFF, 0xFF, 0xFF}));
}

TEST(VekWrite, AStringBeyondTheLimitIsRefusedAndNothingOfItWritten) {
  std::string huge(kVekMaxStringSize + 1u, 'x');
  Writer out;
  out.write(7, 0);
  EXPECT_EQ(textOf<VekDecodeInvalidValue>([&] { out.write(huge, 200); }),
            "invalid string size, tag: 200, size: 104857601");
  EXPECT_EQ(std::string(out.getBuffer(), out.getLength()), bytes({0x00, 0x07}));
  huge.pop_back();
  out.write(huge, 1);
  EXPECT_EQ(std::string(out.getBuffer() + 2, 5), bytes({0x17, 0x06, 0x40, 0x00, 0x00}));
  EXPECT_EQ(out.getLength(), 2u + 5u + kVekMaxStringSize);
}

}  // namespace
