#include <gtest/gtest.h>

#include "tests/service/import_support.h"

/// How names of places become ids that nest.
namespace tolvar::service {
namespace {

using tolvar_test::csv;
using tolvar_test::nameOf;
using tolvar_test::placeNames;

const char* const kHeader = "start,end,country,province,city,district\n";

std::int64_t onlyPlace(const std::string& row) {
  return csv(kHeader + row).table.ranges.at(0).place;
}

std::string onlyNames(const std::string& row) {
  const auto result = csv(kHeader + row);
  return placeNames(result.table, result.table.ranges.at(0));
}

TEST(PlaceIds, NestByDecimalPrefix) {
  const auto result = csv(std::string(kHeader) +
                          "1,1,Germany,B,X,d1\n"
                          "2,2,Germany,A,Y,d2\n"
                          "3,3,Germany,A,X,d2\n"
                          "4,4,Germany,A,X,d1\n");
  const auto& ranges = result.table.ranges;
  EXPECT_EQ(ranges[0].place, 276002001001);
  EXPECT_EQ(ranges[1].place, 276001002001);
  EXPECT_EQ(ranges[2].place, 276001001002);
  EXPECT_EQ(ranges[3].place, 276001001001);
  EXPECT_EQ(placeNames(result.table, ranges[0]), "Germany/B/X/d1");
  EXPECT_EQ(placeNames(result.table, ranges[2]), "Germany/A/X/d2");
}

TEST(PlaceIds, UnknownLevelsAreZeroAndHaveNoName) {
  EXPECT_EQ(onlyPlace("1,1,DE,,,\n"), 276000000000);
  EXPECT_EQ(onlyPlace("1,1,DE,A,,\n"), 276001000000);
  EXPECT_EQ(onlyPlace("1,1,DE,A,B,\n"), 276001001000);
  EXPECT_EQ(onlyPlace("1,1,,,,\n"), 0);
  EXPECT_EQ(onlyNames("1,1,DE,A,B,\n"), "Germany/A/B/");
  EXPECT_EQ(onlyNames("1,1,,,,\n"), "///");
}

TEST(PlaceIds, ALevelLeftOpenKeepsTheNamesBelowIt) {
  EXPECT_EQ(onlyPlace("1,1,DE,,X,\n"), 276000001000);
  EXPECT_EQ(onlyNames("1,1,DE,,X,\n"), "Germany//X/");
  EXPECT_EQ(onlyNames("1,1,DE,,,d\n"), "Germany///d");
  EXPECT_EQ(onlyNames("1,1,,P,,d\n"), "/P//d");
}

TEST(PlaceIds, ACityWithoutProvinceIsNotTheOneOfAProvince) {
  const auto result = csv(std::string(kHeader) + "1,1,DE,,X,\n2,2,DE,A,X,\n");
  EXPECT_NE(result.table.ranges[0].place, result.table.ranges[1].place);
  EXPECT_EQ(placeNames(result.table, result.table.ranges[0]), "Germany//X/");
  EXPECT_EQ(placeNames(result.table, result.table.ranges[1]), "Germany/A/X/");
}

TEST(PlaceIds, UnknownCountriesGetIdsOfTheirOwn) {
  const auto result = csv(std::string(kHeader) + "1,1,Narnia,West,,\n2,2,Atlantis,,,\n");
  EXPECT_EQ(result.table.ranges[0].place, 1001001000000);
  EXPECT_EQ(result.table.ranges[1].place, 1000000000000);
  EXPECT_EQ(placeNames(result.table, result.table.ranges[0]), "Narnia/West//");
}

TEST(PlaceIds, ThirtyTwoBitsHoldTheLargestCityId) {
  EXPECT_LT((std::int64_t{3675} * 1000 + 999) * 1000 + 999, std::int64_t{UINT32_MAX});
}

TEST(PlaceIds, SpellingsOfOneCountryShareItsIdAndProvinces) {
  const auto result = csv(std::string(kHeader) +
                          "1,1,KR,Haneul,,\n"
                          "2,2,South Korea,Haneul,,\n"
                          "3,3,\"Korea, Republic of\",Haneul,,\n");
  EXPECT_EQ(result.table.ranges[0].place, 410001000000);
  EXPECT_EQ(result.table.ranges[1].place, 410001000000);
  EXPECT_EQ(result.table.ranges[2].place, 410001000000);
  EXPECT_EQ(nameOf(result.table, 1, 410), "Korea, Republic of");
}

TEST(PlaceIds, ACountrySpelledOneWayKeepsThatName) {
  const auto result = csv(std::string(kHeader) + "1,1,South Korea,,,\n2,2,KR,,,\n");
  EXPECT_EQ(nameOf(result.table, 1, 410), "South Korea");
  EXPECT_EQ(nameOf(csv(std::string(kHeader) + "1,1,KR,,,\n").table, 1, 410), "Korea, Republic of");
}

TEST(PlaceIds, ARegistryKeepsIdsWhenNamesComeAndGo) {
  const ImportResult first =
      csv("start,end,country,province,oper\n1,1,DE,M,Net M\n2,2,DE,Z,Net Z\n3,3,Narnia,,\n");
  ImportOptions options;
  options.ids = first.ids;
  const ImportResult second =
      csv("start,end,country,province,oper\n1,1,DE,A,Net A\n2,2,DE,Z,Net "
          "Z\n3,3,Narnia,,\n4,4,Atlantis,,\n",
          options);
  EXPECT_EQ(second.table.ranges[1].place, first.table.ranges[1].place);
  EXPECT_EQ(second.table.ranges[1].oper, first.table.ranges[1].oper);
  EXPECT_EQ(second.table.ranges[2].place, first.table.ranges[2].place);
  EXPECT_EQ(second.table.ranges[0].place, 276003000000) << "M's number is not given away";
  EXPECT_EQ(second.table.ranges[3].place, 1001000000000);
  EXPECT_EQ(nameOf(second.table, 2, 276001), "") << "names that no row uses have no code";
}

TEST(PlaceIds, AFailedImportChangesNoRegistry) {
  ImportOptions options;
  options.ids = csv("start,end,oper\n1,1,a\n").ids;
  const IdRegistry before = options.ids;
  EXPECT_THROW(csv("start,end,oper\n1,1,b\n1,1,c\n", options), ImportError);
  EXPECT_EQ(options.ids, before);
}

}  // namespace
}  // namespace tolvar::service
