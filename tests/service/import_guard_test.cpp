#include "service/import_guard.h"

#include <gmock/gmock.h>

#include <limits>

#include "service/id_registry.h"

namespace {

using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using namespace tolvar::service;

constexpr std::int64_t kBerlin = 276001002003;  // district 3 of city 2 of province 1 of 276

/// `count` ranges of `width` addresses each, without a place.
TableData rangesOf(std::uint32_t count, std::uint32_t width = 256) {
  TableData data;
  for (std::uint32_t i = 0; i < count; ++i) {
    ravel::IPProperty range;
    range.startIP = i * 1000;
    range.endIP = range.startIP + width - 1;
    data.ranges.push_back(range);
  }
  return data;
}

void addCode(TableData& data, CodeType type, std::int64_t id) {
  ravel::CodeInfo code;
  code.codeType = static_cast<std::int32_t>(type);
  code.ID = id;
  code.content = "name";
  data.codes.push_back(code);
}

ImportComparison compare(TableData served, TableData next) {
  const TableVersion old(std::move(served), 1);
  return compareImport(&old, TableVersion(std::move(next), 1));
}

TEST(ImportGuard, AFirstTableIsSafe) {
  const ImportComparison result = compareImport(nullptr, TableVersion(rangesOf(3), 1));
  EXPECT_THAT(result.objections, IsEmpty());
  EXPECT_FALSE(result.served.has_value());
  EXPECT_EQ(result.next.ranges, 3u);
  EXPECT_EQ(result.next.addresses, 768u);
  EXPECT_EQ(result.rangesAdded, 3u);
  EXPECT_FALSE(result.isSame());
}

TEST(ImportGuard, AnEmptyTableIsNot) {
  EXPECT_THAT(compareImport(nullptr, TableVersion({}, 1)).objections,
              ElementsAre(HasSubstr("empty")));
  EXPECT_THAT(compare(rangesOf(5), {}).objections, ElementsAre(HasSubstr("empty")));
}

TEST(ImportGuard, AFifthOfTheRangesMayGoAndNoMore) {
  EXPECT_TRUE(compare(rangesOf(1000), rangesOf(800)).isSafe());
  EXPECT_THAT(
      compare(rangesOf(1000, 256), rangesOf(799, 512)).objections,
      ElementsAre(AllOf(HasSubstr("20.1 % fewer ranges"), HasSubstr("799 instead of 1,000"))));
}

TEST(ImportGuard, AFifthOfTheAddressesMayGoAndNoMore) {
  EXPECT_TRUE(compare(rangesOf(100, 500), rangesOf(100, 400)).isSafe());
  EXPECT_THAT(
      compare(rangesOf(100, 500), rangesOf(100, 399)).objections,
      ElementsAre(AllOf(HasSubstr("fewer addresses"), HasSubstr("39,900 instead of 50,000"))));
}

TEST(ImportGuard, WhatIsAboveTheLimitIsNotShownAsTheLimit) {
  EXPECT_THAT(compare(rangesOf(10000), rangesOf(7999)).objections,
              testing::Contains(HasSubstr("20.1 % fewer ranges")));
}

TEST(ImportGuard, GrowthAndTheWholeAddressSpaceAreSafe) {
  TableData all;
  all.ranges.emplace_back().endIP = std::numeric_limits<std::uint32_t>::max();
  const ImportComparison result = compare(rangesOf(1), all);
  EXPECT_TRUE(result.isSafe());
  EXPECT_EQ(result.next.addresses, 4294967296u);
}

TEST(ImportGuard, ATableLikeAnEmptyOneServedIsSafe) {
  EXPECT_TRUE(compare({}, rangesOf(1)).isSafe());
}

TEST(ImportGuard, EveryIdThatARangeUsesNeedsAName) {
  TableData data = rangesOf(2);
  data.ranges[0].place = kBerlin;
  data.ranges[1].extend = 1;
  data.ranges[1].oper = 2;
  data.ranges[1].nettype = 3;
  data.ranges[1].apn = 4;
  addCode(data, CodeType::Country, 276);
  addCode(data, CodeType::Province, 276001);
  addCode(data, CodeType::City, 276001002);
  addCode(data, CodeType::District, kBerlin);
  addCode(data, CodeType::Extend, 1);
  addCode(data, CodeType::Oper, 2);
  addCode(data, CodeType::Nettype, 3);
  addCode(data, CodeType::Apn, 4);
  EXPECT_TRUE(compareImport(nullptr, TableVersion(data, 1)).isSafe());
  for (std::size_t i = 0; i < data.codes.size(); ++i) {
    TableData less = data;
    less.codes.erase(less.codes.begin() + static_cast<std::ptrdiff_t>(i));
    EXPECT_THAT(compareImport(nullptr, TableVersion(less, 1)).objections,
                ElementsAre(AllOf(HasSubstr("1 id that no code entry names"),
                                  HasSubstr(std::to_string(data.codes[i].ID)))))
        << i;
  }
}

TEST(ImportGuard, ACodeOfAnotherKindIsNoName) {
  TableData data = rangesOf(1);
  data.ranges[0].oper = 7;
  addCode(data, CodeType::Apn, 7);
  EXPECT_THAT(compareImport(nullptr, TableVersion(data, 1)).objections,
              ElementsAre(AllOf(HasSubstr("operator 7"), HasSubstr("0.0.0.0"))));
}

TEST(ImportGuard, LevelsLeftOpenNeedNoName) {
  TableData data = rangesOf(1);
  data.ranges[0].place = 276000005000;  // city 5 right below the country
  addCode(data, CodeType::Country, 276);
  addCode(data, CodeType::City, 276000005);
  EXPECT_TRUE(compareImport(nullptr, TableVersion(data, 1)).isSafe());
}

TEST(ImportGuard, ManyMissingNamesAreSummedUp) {
  TableData data = rangesOf(100);
  for (std::uint32_t i = 0; i < 100; ++i) data.ranges[i].oper = i + 1;
  const auto objections = compareImport(nullptr, TableVersion(data, 1)).objections;
  ASSERT_EQ(objections.size(), 1u);
  EXPECT_THAT(objections[0], AllOf(HasSubstr("100 ids"), HasSubstr("and more")));
  EXPECT_LT(objections[0].size(), 300u);
}

TEST(ImportGuard, DifferencesAreCountedByContent) {
  TableData next = rangesOf(10);
  next.ranges[3].oper = 1;
  next.ranges.pop_back();
  addCode(next, CodeType::Oper, 1);
  TableData served = rangesOf(10);
  addCode(served, CodeType::Oper, 9);
  const ImportComparison result = compare(served, next);
  EXPECT_EQ(result.rangesAdded, 1u);
  EXPECT_EQ(result.rangesRemoved, 2u);
  EXPECT_EQ(result.codesAdded, 1u);
  EXPECT_EQ(result.codesRemoved, 1u);
  EXPECT_FALSE(result.isSame());
  EXPECT_TRUE(compare(served, served).isSame());
}

TEST(ImportGuard, NumbersAreGroupedByThousands) {
  EXPECT_EQ(grouped(0), "0");
  EXPECT_EQ(grouped(999), "999");
  EXPECT_EQ(grouped(1000), "1,000");
  EXPECT_EQ(grouped(4294967296), "4,294,967,296");
}

}  // namespace
