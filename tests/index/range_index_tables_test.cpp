#include <gtest/gtest.h>

#include <random>

#include "bench/support/geoip_table.h"
#include "bench/support/synthetic_table.h"
#include "tests/index/range_index_model.h"

namespace tolvar_test {
namespace {

using ravel::IPProperty;
using ravel::vIPProperty;
using tolvar::RangeIndex;

/// Bytes that the index of a table may take: 10 a range and 64 a tuple.
std::size_t memoryLimit(const RangeIndex& index) {
  return 10 * index.rangeCount() + 64 * index.tupleCount();
}

/// The range of a sorted table without overlaps that contains the address.
const IPProperty* search(const vIPProperty& table, std::uint32_t ip) {
  const auto above = std::upper_bound(
      table.begin(), table.end(), ip,
      [](std::uint32_t address, const IPProperty& range) { return address < range.startIP; });
  if (above == table.begin()) return nullptr;
  const IPProperty& candidate = *(above - 1);
  return ip <= candidate.endIP ? &candidate : nullptr;
}

void checkTable(const vIPProperty& table, const RangeIndex& index) {
  Expectations expectations;
  for (std::size_t i = 0; i < table.size(); ++i) {
    const std::uint32_t start = table[i].startIP;
    const std::uint32_t end = table[i].endIP;
    if (i > 0) {
      ASSERT_GT(start, table[i - 1].endIP) << "the model needs ranges without overlaps";
    }
    expectations.add(start, &table[i]);
    expectations.add(end, &table[i]);
    if (i > 0 || start > 0) expectations.add(start - 1, search(table, start - 1));
    expectations.add(end + 1, search(table, end + 1));
  }
  std::mt19937 random(7);
  for (int i = 0; i < 1000000; ++i) {
    const auto ip = static_cast<std::uint32_t>(random());
    expectations.add(ip, search(table, ip));
  }
  expectations.check(index);
}

TEST(RangeIndexTables, ARealTableIsAnsweredOnEveryEdge) {
  const vIPProperty table = tolvar_bench::readGeoipTable();
  ASSERT_GT(table.size(), 100000u);
  const RangeIndex index = RangeIndex::build(table);
  checkTable(table, index);
  EXPECT_LE(index.memoryBytes(), memoryLimit(index));
}

TEST(RangeIndexTables, ASyntheticTableIsAnsweredOnEveryEdge) {
  const vIPProperty table = tolvar_bench::makeSyntheticTable({});
  ASSERT_EQ(table.size(), 524288u);
  const RangeIndex index = RangeIndex::build(table);
  checkTable(table, index);
  EXPECT_LE(index.memoryBytes(), memoryLimit(index));
}

}  // namespace
}  // namespace tolvar_test
