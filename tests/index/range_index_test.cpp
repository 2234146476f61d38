#include "src/index/range_index.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <limits>
#include <random>

#include "src/index/tuple_numbers.h"
#include "tests/index/range_index_model.h"

namespace tolvar_test {
namespace {

using ravel::IPProperty;
using ravel::vIPProperty;
using tolvar::RangeIndex;

constexpr std::uint32_t kLast = std::numeric_limits<std::uint32_t>::max();

IPProperty range(std::uint32_t start, std::uint32_t end, std::int64_t place) {
  IPProperty result;
  result.startIP = start;
  result.endIP = end;
  result.place = place;
  return result;
}

/// Checks every edge of the table, one below and one above, and `more`, against the linear scan.
void checkAgainstScan(const vIPProperty& table, std::vector<std::uint32_t> more = {}) {
  const RangeIndex index = RangeIndex::build(table);
  ASSERT_EQ(index.rangeCount(), table.size());
  more.insert(more.end(), {0, 1, 0xFFFF, 0x10000, 0x7FFFFFFF, 0x80000000, kLast - 1, kLast});
  for (const IPProperty& entry : table) {
    for (const std::uint32_t edge : {entry.startIP, entry.endIP}) {
      more.insert(more.end(), {edge - 1, edge, edge + 1});
    }
  }
  Expectations expectations;
  for (const std::uint32_t ip : more) expectations.add(ip, scan(table, ip));
  expectations.check(index);
}

TEST(RangeIndex, AnEmptyTableAnswersNothing) {
  checkAgainstScan({});
  EXPECT_EQ(RangeIndex::build({}).tupleCount(), 1u);
}

TEST(RangeIndex, UnpacksThePlaceByDecimalPrefixes) {
  IPProperty entry = range(10, 20, 86110105001);
  entry.extend = 1;
  entry.oper = 0x80000002;
  entry.nettype = 3;
  entry.apn = 0x1FF;
  entry.flable = 0x100;
  const RangeIndex index = RangeIndex::build(vIPProperty{entry});
  const ravel::IPInfo* const info = index.find(15);
  ASSERT_NE(info, nullptr);
  EXPECT_EQ(info->district, 86110105001);
  EXPECT_EQ(info->city, 86110105u);
  EXPECT_EQ(info->province, 86110u);
  EXPECT_EQ(info->country, 86u);
  EXPECT_EQ(info->extend, 1u);
  EXPECT_EQ(info->oper, 0x80000002u);
  EXPECT_EQ(info->nettype, 3u);
  EXPECT_EQ(info->apn, 255u);
  EXPECT_EQ(info->flable, 0u);
}

TEST(RangeIndex, PlacesDivideTowardsZeroAndKeepTheLow32Bits) {
  const RangeIndex index =
      RangeIndex::build(vIPProperty{range(1, 1, 999), range(2, 2, -1500), range(3, 3, INT64_MAX)});
  EXPECT_EQ(index.find(1)->district, 999);
  EXPECT_EQ(index.find(1)->city, 0u);
  EXPECT_EQ(index.find(2)->district, -1500);
  EXPECT_EQ(index.find(2)->city, 0xFFFFFFFFu);
  EXPECT_EQ(index.find(2)->province, 0u);
  EXPECT_EQ(index.find(3)->city, static_cast<std::uint32_t>(INT64_MAX / 1000));
  EXPECT_EQ(index.find(3)->country, static_cast<std::uint32_t>(INT64_MAX / 1000000000));
}

TEST(RangeIndex, BothEndsOfTheAddressSpaceBelongToIt) {
  checkAgainstScan({range(0, 0, 1), range(kLast, kLast, 2)});
  checkAgainstScan({range(0, kLast, 1)});
  checkAgainstScan({range(1, kLast - 1, 1)});
}

TEST(RangeIndex, NeighboursWithEqualAttributesStayApartFromTheirGaps) {
  checkAgainstScan(
      {range(5, 9, 1), range(10, 14, 1), range(16, 20, 1), range(0x1FFFF, 0x20000, 1)});
}

TEST(RangeIndex, OverlapsAreAnsweredByTheFirstInOrder) {
  checkAgainstScan({range(10, 100, 1), range(20, 30, 2), range(20, 150, 3), range(90, 100, 4),
                    range(90, 200, 5)});
  checkAgainstScan({range(10, 20, 1), range(10, 20, 2), range(10, 21, 3)});
  checkAgainstScan({range(0, kLast, 1), range(7, 8, 2), range(kLast, kLast, 3)});
}

TEST(RangeIndex, ReversedRangesAreIgnored) {
  checkAgainstScan({range(10, 5, 1), range(11, 12, 2), range(12, 0, 3), range(13, 13, 4)});
  checkAgainstScan({range(kLast, 0, 1)});
}

TEST(RangeIndex, EqualAttributesAreStoredOnce) {
  vIPProperty table;
  for (std::uint32_t i = 0; i < 5000; ++i) {
    table.push_back(range(i * 100, i * 100 + 50, 1 + i % 7));
    table.back().apn = (i % 3) << 8;  // only the low 8 bits count
  }
  EXPECT_EQ(RangeIndex::build(table).tupleCount(), 8u);
}

TEST(RangeIndex, ARangeOfAllZeroAttributesIsAHit) {
  const RangeIndex index = RangeIndex::build(vIPProperty{range(3, 5, 0)});
  ASSERT_NE(index.find(4), nullptr);
  EXPECT_EQ(index.find(4)->district, 0);
  EXPECT_EQ(index.find(6), nullptr);
}

TEST(RangeIndex, EveryAddressOfABlockMayBeARangeOfItsOwn) {
  vIPProperty table;
  for (std::uint32_t i = 0; i < 0x10000; ++i)
    table.push_back(range(0x0A000000 + i, 0x0A000000 + i, i));
  const RangeIndex index = RangeIndex::build(table);
  Expectations expectations;
  expectations.add(0x0A000000 - 1, nullptr);
  for (const IPProperty& entry : table) expectations.add(entry.startIP, &entry);
  expectations.add(0x0A010000, nullptr);
  expectations.check(index);
}

TEST(RangeIndex, ADenseCornerOfABlockStaysSmall) {
  // 16 single addresses at the end of each of 4,096 blocks: the worst case for a radix directory.
  vIPProperty table;
  for (std::uint32_t block = 0; block < 4096; ++block) {
    for (std::uint32_t i = 0; i < 16; ++i) {
      const std::uint32_t address = (block << 16) + 0xFFF0 + i;
      table.push_back(range(address, address, 1 + i));
    }
  }
  const RangeIndex index = RangeIndex::build(table);
  EXPECT_LT(index.memoryBytes() - 4 * 65536, table.size() * 32);
  Expectations expectations;
  for (const IPProperty& entry : table) expectations.add(entry.startIP, &entry);
  for (std::uint32_t block = 0; block < 4096; ++block) {
    expectations.add(block << 16, nullptr);
    expectations.add((block << 16) + 0xFFEF, nullptr);
  }
  expectations.check(index);
}

TEST(RangeIndex, BatchesOfAnySizeAnswerLikeSingles) {
  const vIPProperty table{range(10, 20, 1), range(30, 40, 2)};
  const RangeIndex index = RangeIndex::build(table);
  for (const std::size_t size : {0u, 1u, 2u, 3u, 5u, 127u, 128u, 129u, 255u, 300u}) {
    std::vector<std::uint32_t> ips(size);
    for (std::size_t i = 0; i < size; ++i) ips[i] = static_cast<std::uint32_t>(i % 50);
    std::vector<ravel::IPInfo> infos(size + 1);
    std::vector<std::uint8_t> found(size + 1, 9);
    infos[size].oper = 4711;
    index.findBatch(ips, infos.data(), found.data());
    for (std::size_t i = 0; i < size; ++i) {
      const IPProperty* const expected = scan(table, ips[i]);
      ASSERT_EQ(found[i], expected != nullptr ? 1 : 0);
      ASSERT_TRUE(same(infos[i], expectedInfo(expected)));
    }
    EXPECT_EQ(found[size], 9);
    EXPECT_EQ(infos[size].oper, 4711u);
  }
}

TEST(RangeIndex, AMovedIndexAnswersAsBefore) {
  RangeIndex first = RangeIndex::build(vIPProperty{range(10, 20, 1)});
  RangeIndex second = std::move(first);
  EXPECT_NE(second.find(10), nullptr);
  first = RangeIndex::build(vIPProperty{range(30, 40, 1)});
  second = std::move(first);
  EXPECT_EQ(second.find(10), nullptr);
  EXPECT_NE(second.find(40), nullptr);
}

/// Random tables with everything at once; `span` addresses around a few centres hold all of them.
void checkRandomTables(std::uint32_t seed, int tables, std::uint32_t maxRanges,
                       std::uint32_t span) {
  std::mt19937 random(seed);
  const auto below = [&](std::uint32_t bound) {
    return static_cast<std::uint32_t>(random() % bound);
  };
  for (int round = 0; round < tables; ++round) {
    const std::uint32_t centres[] = {0u - span / 2, static_cast<std::uint32_t>(random()),
                                     0x7FFF0000u};
    const auto address = [&] { return centres[below(3)] + below(span); };
    const std::uint32_t sizeLimit = 1 + below(span);
    vIPProperty table(1 + below(maxRanges));
    for (IPProperty& entry : table) {
      entry.startIP = address();
      const std::uint32_t size = below(4) == 0 ? 0 : below(sizeLimit);
      entry.endIP = entry.startIP > kLast - size ? kLast : entry.startIP + size;
      if (below(20) == 0) std::swap(entry.startIP, entry.endIP);
      entry.place = below(5);
      entry.apn = below(300);
    }
    std::sort(table.begin(), table.end());
    std::vector<std::uint32_t> more;
    for (int i = 0; i < 500; ++i) more.push_back(address());
    ASSERT_NO_FATAL_FAILURE(checkAgainstScan(table, more)) << "seed " << seed << " round " << round;
  }
}

TEST(RangeIndex, AgreesWithALinearScanOnSmallTables) { checkRandomTables(1, 400, 12, 60); }
TEST(RangeIndex, AgreesWithALinearScanOnCrowdedTables) { checkRandomTables(2, 60, 400, 3000); }
TEST(RangeIndex, AgreesWithALinearScanOnWideTables) { checkRandomTables(3, 60, 400, 1u << 22); }
TEST(RangeIndex, AgreesWithALinearScanOnLargeTables) { checkRandomTables(4, 3, 3000, 1u << 17); }

TEST(TupleNumbers, CountTuplesInTheOrderTheyFirstAppear) {
  constexpr std::uint32_t kTuples = 10000;
  vIPProperty table;
  for (std::uint32_t i = 0; i < 3 * kTuples; ++i) {
    table.push_back(range(i, i, (i % kTuples) * 1000000000ll));
    table.back().flable = i << 8;  // only the low 8 bits count
  }
  const tolvar::TupleNumbers tuples(table);
  ASSERT_EQ(tuples.count(), kTuples + 1);
  for (std::uint32_t i = 0; i < table.size(); ++i)
    ASSERT_EQ(tuples.ofRanges()[i], i % kTuples + 1) << i;
  for (std::uint32_t i = 0; i < kTuples; ++i) ASSERT_EQ(tuples.info(i + 1).country, i);
  EXPECT_EQ(tuples.info(0).district, 0);
}

TEST(TupleNumbers, EveryAttributeTellsTuplesApart) {
  vIPProperty table(7, range(0, 0, 1));
  table[1].place = 2;
  table[2].extend = 1;
  table[3].oper = 1;
  table[4].nettype = 1;
  table[5].apn = 1;
  table[6].flable = 1;
  const tolvar::TupleNumbers tuples(table);
  EXPECT_EQ(tuples.count(), 8u);
  EXPECT_THAT(tuples.ofRanges(), testing::ElementsAre(1, 2, 3, 4, 5, 6, 7));
}

}  // namespace
}  // namespace tolvar_test
