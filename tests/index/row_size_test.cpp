#include "src/index/row_size.h"

#include <gtest/gtest.h>

namespace tolvar_test {
namespace {

using tolvar::RowSize;

RowSize::Choice chosen(std::size_t tuples, std::size_t bytes, std::size_t larger,
                       std::size_t largerBytes) {
  RowSize size;
  for (std::size_t i = 0; i < tuples; ++i) size.count(bytes);
  for (std::size_t i = 0; i < larger; ++i) size.count(largerBytes);
  return size.choose();
}

TEST(RowSize, IsTheSmallestThatIsEnough) {
  for (const auto& [bytes, row] : {std::pair<std::size_t, std::size_t>{0, 32},
                                   {32, 32},
                                   {33, 64},
                                   {65, 128},
                                   {129, 192},
                                   {193, 256},
                                   {256, 256}}) {
    EXPECT_EQ(chosen(10, bytes, 0, 0).bytes, row) << bytes;
    EXPECT_EQ(chosen(10, bytes, 0, 0).apart, 0u) << bytes;
  }
  EXPECT_EQ(RowSize().choose().bytes, 32u);
}

TEST(RowSize, LeavesAVeryFewTuplesOut) {
  EXPECT_EQ(chosen(40900, 60, 10, 100).bytes, 128u);
  EXPECT_EQ(chosen(40960, 60, 10, 100).bytes, 64u);
  EXPECT_EQ(chosen(40960, 60, 10, 100).apart, 10u);
}

TEST(RowSize, IsNeverBeyondTheLargest) {
  EXPECT_EQ(chosen(10, 20, 90, 257).bytes, RowSize::kLargest);
  EXPECT_EQ(chosen(10, 20, 90, 257).apart, 90u);
}

}  // namespace
}  // namespace tolvar_test
