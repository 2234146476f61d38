#include "service/country_importer.h"

#include <gtest/gtest.h>

#include <fstream>
#include <map>
#include <sstream>

#include "service/table_version.h"
#include "tests/service/import_support.h"

namespace tolvar::service {
namespace {

using tolvar_test::countries;
using tolvar_test::nameOf;

constexpr const char* kRealFile = "/usr/share/tor/geoip";

TEST(CountryImporter, ReadsRangesWithCommentsAndBlankLines) {
  const auto result =
      countries("# source\n\n16777216,16777471,AU\r\n 1.0.1.0 , 1.0.3.255 , CN \n#x");
  ASSERT_EQ(result.table.ranges.size(), 2u);
  EXPECT_EQ(result.table.ranges[0].startIP, 0x01000000u);
  EXPECT_EQ(result.table.ranges[0].place, 36000000000);
  EXPECT_EQ(result.table.ranges[1].endIP, 0x010003FFu);
  EXPECT_EQ(result.table.ranges[1].place, 156000000000);
  EXPECT_EQ(nameOf(result.table, 1, 36), "Australia");
  EXPECT_EQ(nameOf(result.table, 1, 156), "China");
  EXPECT_EQ(result.table.codes.size(), 2u);
}

TEST(CountryImporter, UnknownProvincesHaveNoName) {
  const auto result = countries("1,2,AU\n");
  EXPECT_EQ(tolvar_test::placeNames(result.table, result.table.ranges[0]), "Australia///");
}

TEST(CountryImporter, DropsNoRangeWithACodeOutsideIso) {
  const auto result = countries("1,1,??\n2,2,AN\n3,3,AP\n4,4,CS\n5,5,EU\n6,6,UK\n");
  ASSERT_EQ(result.table.ranges.size(), 6u);
  for (std::size_t i = 0; i < 6; ++i)
    EXPECT_EQ(result.table.ranges[i].place / 1000000000, 900 + static_cast<std::int64_t>(i));
  EXPECT_EQ(nameOf(result.table, 1, 900), "Unknown");
  EXPECT_TRUE(result.warnings.empty());
}

TEST(CountryImporter, WarnsOfACodeInNoListOnce) {
  const auto result = countries("1,1,AU\n2,2,XK\n3,3,XK\n");
  ASSERT_EQ(result.warnings.size(), 1u);
  EXPECT_EQ(
      result.warnings[0].text(),
      "geoip:2:5: country code \"XK\" is in no list; it gets id 3608 and its code as its name");
  EXPECT_EQ(nameOf(result.table, 1, 3608), "XK");
}

TEST(CountryImporter, BothFormsGiveACountryTheSameId) {
  const auto rows = tolvar_test::csv("start,end,country\n1,1,AU\n2,2,EU\n3,3,XK\n4,4,??\n");
  const auto lines = countries("1,1,AU\n2,2,EU\n3,3,XK\n4,4,??\n");
  ASSERT_EQ(rows.table.ranges.size(), 4u);
  for (std::size_t i = 0; i < 4; ++i)
    EXPECT_EQ(rows.table.ranges[i].place, lines.table.ranges[i].place);
}

/// Debian's package tor-geoipdb, against a plain reading of the same file.
TEST(CountryImporter, ReadsTheRealTableWhole) {
  std::ifstream file(kRealFile);
  ASSERT_TRUE(file.good()) << kRealFile << " is missing: install the package tor-geoipdb";
  std::map<std::string, std::size_t> expected;
  std::size_t lines = 0;
  std::uint64_t addresses = 0;
  for (std::string line; std::getline(file, line);) {
    if (line.empty() || line[0] == '#') continue;
    std::istringstream fields(line);
    std::uint64_t start = 0, end = 0;
    std::string code;
    char comma = 0;
    fields >> start >> comma >> end >> comma >> code;
    ++lines;
    ++expected[code];
    addresses += end - start + 1;
  }
  ASSERT_GT(lines, 100000u);

  const ImportResult result = importTable(kRealFile);
  EXPECT_TRUE(result.warnings.empty());
  ASSERT_EQ(result.table.ranges.size(), lines);
  std::uint64_t imported = 0;
  std::map<std::int64_t, std::size_t> perCountry;
  for (const ravel::IPProperty& range : result.table.ranges) {
    imported += std::uint64_t{range.endIP} - range.startIP + 1;
    ++perCountry[range.place / 1000000000];
  }
  EXPECT_EQ(imported, addresses);
  EXPECT_EQ(perCountry.size(), expected.size());
  EXPECT_EQ(perCountry[36], expected["AU"]);
  EXPECT_EQ(perCountry[840], expected["US"]);
  EXPECT_EQ(perCountry[900], expected["??"]);
  EXPECT_EQ(perCountry[904], expected["EU"]);
  EXPECT_EQ(perCountry[905], expected["UK"]);
  for (const auto& [country, count] : perCountry) {
    EXPECT_NE(nameOf(result.table, 1, country), "") << country;
    EXPECT_GT(count, 0u);
  }
  const TableVersion version(result.table, 1);
  EXPECT_EQ(version.ranges().size(), lines);
}

}  // namespace
}  // namespace tolvar::service
