#include <gtest/gtest.h>

#include <set>

#include "platform/toolkit.h"
#include "service/importer.h"
#include "service/table_version.h"
#include "tests/service/import_support.h"

namespace tolvar::service {
namespace {

class SampleTable : public testing::Test {
 protected:
  const ravel::IPProperty* find(const char* address) const {
    return tolvar_test::rangeOf(result.table, Toolkit::s2ipD(address));
  }

  std::string place(const char* address) const {
    const auto* range = find(address);
    return range == nullptr ? "nowhere" : tolvar_test::placeNames(result.table, *range);
  }

  ImportResult result = importTable(TOLVAR_SOURCE_DIR "/data/sample/sample.csv");
};

TEST_F(SampleTable, ImportsWithoutAWarning) {
  EXPECT_TRUE(result.warnings.empty());
  EXPECT_EQ(result.table.ranges.size(), 40u);
  EXPECT_EQ(TableVersion(result.table, 1).ranges().size(), 40u);
}

TEST_F(SampleTable, HasCodesOfEveryKind) {
  std::set<int> types;
  for (const ravel::CodeInfo& code : result.table.codes) types.insert(code.codeType);
  EXPECT_EQ(types, (std::set<int>{1, 2, 3, 4, 5, 6, 7, 8}));
}

TEST_F(SampleTable, KnowsPlacesDownToTheDistrict) {
  EXPECT_EQ(place("192.0.2.0"), "Germany/Nordmark/Altenhafen/Speicherstadt");
  EXPECT_EQ(place("192.0.2.31"), "Germany/Nordmark/Altenhafen/Speicherstadt");
  EXPECT_EQ(place("192.0.2.32"), "Germany/Nordmark/Altenhafen/Am Deich");
  EXPECT_EQ(place("192.0.2.130"), "Germany/Südfeld/Kornthal/Altstadt");
  EXPECT_EQ(place("203.0.113.7"), "India/Suryapradesh/Nayanagar/Market, Old Quarter");
  EXPECT_EQ(place("203.0.113.33"), "India/Suryapradesh/Devpur/The \"Fort\"");
  EXPECT_EQ(place("198.51.100.200"), "Korea, Republic of/Haneulbuk/Saebyeok/Seonae");
}

TEST_F(SampleTable, KnowsPlacesWithOpenLevels) {
  EXPECT_EQ(place("8.8.8.8"), "United States/Western Shore/Mesa Vista/");
  EXPECT_EQ(place("1.0.0.1"), "Australia///");
  EXPECT_EQ(place("192.0.2.241"), "Germany//Inselstadt/");
  EXPECT_EQ(place("203.0.113.255"), "///");
}

TEST_F(SampleTable, HasHoles) {
  EXPECT_EQ(place("192.0.2.248"), "nowhere");
  EXPECT_EQ(place("203.0.113.252"), "nowhere");
  EXPECT_EQ(place("10.0.0.1"), "nowhere");
}

TEST_F(SampleTable, KnowsEverythingElseAboutARange) {
  const auto* range = find("192.0.2.97");
  ASSERT_NE(range, nullptr);
  EXPECT_EQ(tolvar_test::nameOf(result.table, 6, range->oper), "Rheinfunk");
  EXPECT_EQ(tolvar_test::nameOf(result.table, 7, range->nettype), "mobile");
  EXPECT_EQ(tolvar_test::nameOf(result.table, 8, range->apn), "internet.rheinfunk");
  EXPECT_EQ(range->extend, 0u);
  EXPECT_EQ(range->flable, 2u);
  EXPECT_EQ(tolvar_test::nameOf(result.table, 5, find("192.0.2.1")->extend), "campus");
}

}  // namespace
}  // namespace tolvar::service
