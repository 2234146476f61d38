#include "platform/huge_pages.h"

#include <gtest/gtest.h>
#include <sys/mman.h>

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

TEST(HugePages, FreshMemoryIsZeroAndUsableToItsLastByte) {
  for (const std::size_t bytes :
       {qel::kHugePageBytes, qel::kHugePageBytes + 1, 3 * qel::kHugePageBytes - 1}) {
    errno = EDOM;
    auto* const memory = static_cast<char*>(qel::mapHugePages(bytes));
    EXPECT_EQ(errno, EDOM);
    EXPECT_EQ(std::accumulate(memory, memory + bytes, 0), 0);
    memory[0] = memory[bytes - 1] = 'x';
    qel::unmapHugePages(memory, bytes);
  }
}

TEST(HugePages, MemoryGivenBackIsGone) {
  char* const memory = static_cast<char*>(qel::mapHugePages(2 * qel::kHugePageBytes));
  unsigned char resident;
  ASSERT_EQ(mincore(memory, 4096, &resident), 0);
  qel::unmapHugePages(memory, 2 * qel::kHugePageBytes);
  EXPECT_EQ(mincore(memory, 4096, &resident), -1);
  EXPECT_EQ(errno, ENOMEM);
}

}  // namespace
}  // namespace tolvar_test
