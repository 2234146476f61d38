#include "service/table_version.h"

#include <gtest/gtest.h>

#include <stdexcept>

#include "service/content_digest.h"

namespace tolvar::service {
namespace {

ravel::IPProperty range(std::uint32_t start, std::uint32_t end, std::int64_t place = 0) {
  ravel::IPProperty out;
  out.startIP = start;
  out.endIP = end;
  out.place = place;
  return out;
}

TableData tableOf(std::size_t size) {
  TableData data;
  for (std::uint32_t i = 0; i < size; ++i) data.ranges.push_back(range(i * 10, i * 10 + 9, i));
  return data;
}

template <class CallT>
std::string messageOf(CallT&& call) {
  try {
    call();
  } catch (const std::invalid_argument& error) {
    return error.what();
  }
  return "";
}

std::uint64_t cursor(std::uint64_t high, std::uint64_t low) { return high << 32 | low; }

TEST(TableVersion, SortsAndNumbersRanges) {
  TableData data;
  data.ranges = {range(20, 29), range(0, 9), range(10, 19)};
  data.ranges[0].sequence = 99;
  const TableVersion version(std::move(data), 5);
  ASSERT_EQ(version.ranges().size(), 3u);
  for (std::uint32_t i = 0; i < 3; ++i) {
    EXPECT_EQ(version.ranges()[i].startIP, i * 10);
    EXPECT_EQ(version.ranges()[i].timesTamp, 5u);
    EXPECT_EQ(version.ranges()[i].sequence, i + 1);
  }
  EXPECT_EQ(version.endIndex(), cursor(5, 3));
}

TEST(TableVersion, DigestDoesNotDependOnTheOrderGiven) {
  TableData forwards = tableOf(10);
  TableData backwards = forwards;
  std::reverse(backwards.ranges.begin(), backwards.ranges.end());
  const TableVersion a(std::move(forwards), 1);
  const TableVersion b(std::move(backwards), 2);
  EXPECT_EQ(a.digest(), b.digest());
  EXPECT_EQ(a.digest(), contentDigest(a.ranges()));
}

TEST(TableVersion, SortsCodes) {
  TableData data;
  data.codes.resize(2);
  data.codes[0].codeType = 2;
  data.codes[1].codeType = 1;
  const TableVersion version(std::move(data), 1);
  EXPECT_EQ(version.codes()[0].codeType, 1);
  EXPECT_EQ(version.codes()[1].codeType, 2);
}

TEST(TableVersion, RefusesOverlaps) {
  TableData data;
  data.ranges = {range(0x01000000, 0x010000FF), range(0x010000FF, 0x01000100)};
  EXPECT_EQ(messageOf([&] { TableVersion(data, 1); }),
            "ranges 1.0.0.0-1.0.0.255 and 1.0.0.255-1.0.1.0 overlap");
}

TEST(TableVersion, RefusesReversedRanges) {
  TableData data;
  data.ranges = {range(0x01000001, 0x01000000)};
  EXPECT_EQ(messageOf([&] { TableVersion(data, 1); }),
            "range 1.0.0.1-1.0.0.0 ends before it starts");
}

TEST(TableVersion, RefusesTimeStampZero) {
  EXPECT_EQ(messageOf([] { TableVersion(tableOf(1), 0); }),
            "a table version needs a time stamp above 0");
}

TEST(TableVersionSlice, StartsWithAReset) {
  const TableVersion version(tableOf(10), 5);
  const PageSlice page = version.slice(0, 0, 4);
  EXPECT_EQ(page.first, 0u);
  EXPECT_EQ(page.count, 4u);
  EXPECT_TRUE(page.isReset);
  EXPECT_EQ(page.endIndex, cursor(5, 10));
}

TEST(TableVersionSlice, ContinuesBehindACursorOfItsOwn) {
  const TableVersion version(tableOf(10), 5);
  const PageSlice page = version.slice(5, 4, 4);
  EXPECT_EQ(page.first, 4u);
  EXPECT_EQ(page.count, 4u);
  EXPECT_FALSE(page.isReset);
  EXPECT_EQ(version.slice(5, 8, 4).count, 2u);
}

TEST(TableVersionSlice, IsEmptyAtTheEndIndex) {
  const TableVersion version(tableOf(10), 5);
  const PageSlice page = version.slice(5, 10, 4);
  EXPECT_EQ(page.count, 0u);
  EXPECT_FALSE(page.isReset);
  EXPECT_EQ(page.endIndex, cursor(5, 10));
}

TEST(TableVersionSlice, BeginsAgainForACursorOfAnOlderVersion) {
  const TableVersion version(tableOf(10), 5);
  const PageSlice page = version.slice(4, 3, 4);
  EXPECT_EQ(page.first, 0u);
  EXPECT_TRUE(page.isReset);
  EXPECT_EQ(page.endIndex, cursor(5, 10));
}

TEST(TableVersionSlice, BeginsAgainForACursorPastTheEnd) {
  const TableVersion version(tableOf(10), 5);
  const PageSlice page = version.slice(5, 11, 4);
  EXPECT_EQ(page.first, 0u);
  EXPECT_EQ(page.count, 4u);
  EXPECT_TRUE(page.isReset);
}

// A client ends its download when the cursor it sent is not below the end index, and it has emptied
// its table by then: it must not see that here.
TEST(TableVersionSlice, KeepsAClientFromALaterVersionGoing) {
  const TableVersion version(tableOf(10), 5);
  EXPECT_EQ(version.slice(6, 2, 4).endIndex, cursor(6, 3));
  EXPECT_EQ(version.slice(5, 11, 4).endIndex, cursor(5, 12));
  EXPECT_EQ(messageOf([&] { version.slice(UINT32_MAX, UINT32_MAX, 4); }),
            "cursor 4294967295/4294967295 is no cursor");
}

TEST(TableVersionSlice, BoundsThePageSize) {
  const TableVersion version(tableOf(60000), 5);
  EXPECT_EQ(version.slice(0, 0, 50000).count, 50000u);
  EXPECT_EQ(version.slice(0, 0, 50001).count, 50000u);
  EXPECT_EQ(version.slice(0, 0, UINT32_MAX).count, 50000u);
  EXPECT_EQ(version.slice(5, 50000, UINT32_MAX).count, 10000u);
  EXPECT_EQ(messageOf([&] { version.slice(0, 0, 0); }), "page size 0; expected 1 to 50000");
}

TEST(TableVersionSlice, OfAnEmptyTableIsOneEmptyFirstPage) {
  const TableVersion version(TableData(), 5);
  for (const std::uint32_t high : {0u, 4u, 5u, 6u}) {
    const PageSlice page = version.slice(high, 0, 4);
    EXPECT_EQ(page.count, 0u);
    EXPECT_TRUE(page.isReset);
    EXPECT_EQ(page.endIndex, cursor(5, 0));
  }
}

}  // namespace
}  // namespace tolvar::service
