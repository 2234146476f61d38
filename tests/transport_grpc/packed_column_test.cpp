#include "transport/grpc/packed_column.h"

#include <gmock/gmock.h>

#include <limits>
#include <random>
#include <vector>

#include "transport/grpc/page_bytes.h"

namespace {

using tolvar::wire::PackedColumn;
using tolvar::wire::PageBytes;
using Bytes = std::vector<std::uint8_t>;

void append(std::uint64_t value, Bytes& bytes) {
  for (; value >= 0x80; value >>= 7) bytes.push_back(static_cast<std::uint8_t>(value | 0x80));
  bytes.push_back(static_cast<std::uint8_t>(value));
}

/// Values of at most `bits` bits, short ones and long ones mixed.
std::vector<std::uint64_t> randomValues(std::mt19937_64& random, std::size_t count, unsigned bits) {
  std::vector<std::uint64_t> values(count);
  for (std::uint64_t& value : values) value = random() >> (64 - 1 - random() % bits);
  return values;
}

TEST(PackedColumn, GivesBackAnyValuesInRunsOfAnyLength) {
  std::mt19937_64 random(11);
  for (int round = 0; round < 2000; ++round) {
    const auto values = randomValues(random, 1 + random() % 400, round % 2 == 0 ? 7 : 64);
    Bytes bytes;
    for (const std::uint64_t value : values) append(value, bytes);
    const PageBytes page(bytes);
    PackedColumn column(page.bytes());
    std::vector<std::uint64_t> taken(values.size());
    for (std::size_t first = 0; first < values.size();) {
      const std::size_t count = std::min<std::size_t>(random() % 150, values.size() - first);
      ASSERT_TRUE(column.take(count, taken.data() + first));
      first += count;
    }
    ASSERT_EQ(taken, values);
    ASSERT_TRUE(column.atEnd());
    std::uint64_t more;
    ASSERT_FALSE(column.take(1, &more));
  }
}

TEST(PackedColumn, GivesBackNarrowValuesWhateverLongOnesLieBetween) {
  std::mt19937_64 random(13);
  for (int round = 0; round < 2000; ++round) {
    std::vector<std::uint32_t> values(1 + random() % 400);
    const std::uint64_t longOnes = 1 + random() % 500;
    for (std::uint32_t& value : values)
      value = static_cast<std::uint32_t>(random() >>
                                         (random() % longOnes == 0 ? 32 : 36 + random() % 28));
    Bytes bytes;
    for (const std::uint32_t value : values) append(value, bytes);
    const PageBytes page(bytes);
    PackedColumn column(page.bytes());
    std::vector<std::uint32_t> taken(values.size());
    const std::size_t first = random() % values.size();
    ASSERT_TRUE(column.take(first, taken.data()));
    ASSERT_TRUE(column.take(values.size() - first, taken.data() + first));
    ASSERT_EQ(taken, values);
    ASSERT_TRUE(column.atEnd());
  }
}

TEST(PackedColumn, RunsAreSeenAndLeftOut) {
  Bytes bytes(300, 2);
  bytes[200] = 3;
  const PageBytes page(bytes);
  PackedColumn column(page.bytes());
  EXPECT_TRUE(column.startsWithRun(1, 2));
  EXPECT_TRUE(column.startsWithRun(200, 2));
  EXPECT_FALSE(column.startsWithRun(201, 2));
  EXPECT_FALSE(column.startsWithRun(200, 3));
  column.skipRun(200);
  EXPECT_TRUE(column.startsWithRun(1, 3));
  column.skipRun(1);
  EXPECT_FALSE(column.startsWithRun(100, 2));
  EXPECT_TRUE(column.startsWithRun(99, 2));
  column.skipRun(99);
  EXPECT_TRUE(column.atEnd());
}

TEST(PackedColumn, KnowsOfBytesThatNoValueEnds) {
  for (std::size_t whole = 0; whole < 130; ++whole) {
    Bytes bytes(whole, 5);
    bytes.push_back(0x80);
    const PageBytes page(bytes);
    PackedColumn column(page.bytes());
    std::vector<std::uint32_t> taken(whole + 1);
    ASSERT_TRUE(column.take(whole, taken.data()));
    EXPECT_FALSE(column.atEnd());
    EXPECT_FALSE(column.take(1, taken.data()));
  }
}

TEST(PackedColumn, ValuesAboveSixtyFourBitsAreRefused) {
  const auto take = [](Bytes bytes, std::uint64_t* value) {
    const PageBytes page(bytes);
    return PackedColumn(page.bytes()).take(1, value);
  };
  std::uint64_t value = 0;
  Bytes most(9, 0xff);
  most.push_back(1);
  EXPECT_TRUE(take(most, &value));
  EXPECT_EQ(value, std::numeric_limits<std::uint64_t>::max());
  most.back() = 2;
  EXPECT_FALSE(take(most, &value));
  Bytes eleven(10, 0x80);
  eleven.push_back(0);
  EXPECT_FALSE(take(eleven, &value));
}

TEST(PackedColumn, LeavesOutTheHighBitsOfNarrowFields) {
  Bytes bytes;
  append(0x1234567890, bytes);
  const PageBytes page(bytes);
  std::uint32_t value = 0;
  EXPECT_TRUE(PackedColumn(page.bytes()).take(1, &value));
  EXPECT_EQ(value, 0x34567890u);
}

}  // namespace
