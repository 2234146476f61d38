#include "platform/huge_pages.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdint>
#include <numeric>
#include <vector>

namespace tolvar_test {
namespace {

template <class T>
using HugeVector = std::vector<T, qel::HugePageAllocator<T>>;

TEST(HugePages, LargeTablesBeginOnAHugePage) {
  const HugeVector<std::uint64_t> table(qel::kHugePageBytes / 8 + 1);
  EXPECT_EQ(reinterpret_cast<std::uintptr_t>(table.data()) % qel::kHugePageBytes, 0u);
}

TEST(HugePages, TablesOfAnySizeKeepTheirContentAsTheyGrow) {
  HugeVector<std::uint32_t> table;
  for (std::uint32_t i = 0; i < 2000000; ++i) table.push_back(i);
  for (std::uint32_t i = 0; i < table.size(); ++i) ASSERT_EQ(table[i], i);
  table.resize(10);
  table.shrink_to_fit();
  EXPECT_EQ(std::accumulate(table.begin(), table.end(), 0u), 45u);
}

TEST(HugePages, SmallTablesKeepTheAlignmentOfTheirType) {
  struct alignas(64) Line {
    char bytes[64];
  };
  const HugeVector<Line> table(3);
  EXPECT_EQ(reinterpret_cast<std::uintptr_t>(table.data()) % 64, 0u);
}

TEST(HugePages, MoreElementsThanThereIsMemoryThrow) {
  qel::HugePageAllocator<std::uint64_t> allocator;
  EXPECT_THROW(static_cast<void>(allocator.allocate(SIZE_MAX / 4)), std::bad_alloc);
}

TEST(HugePages, AskingLeavesErrnoAndOddRangesAlone) {
  errno = EDOM;
  std::vector<char> memory(3 * qel::kHugePageBytes + 123, 'x');
  qel::preferHugePages(memory.data() + 77, memory.size() - 77);
  qel::preferHugePages(memory.data() + 77, 10);
  qel::preferHugePages(memory.data(), 0);
  qel::preferHugePages(nullptr, 0);
  qel::preferHugePages(reinterpret_cast<void*>(std::uintptr_t{1} << 62), 2 * qel::kHugePageBytes);
  EXPECT_EQ(errno, EDOM);
  for (const char byte : memory) ASSERT_EQ(byte, 'x');
}

}  // namespace
}  // namespace tolvar_test
