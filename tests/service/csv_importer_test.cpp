#include "service/csv_importer.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>

#include "service/address_text.h"
#include "tests/service/import_support.h"
#include "tests/support/temp_dir.h"

namespace tolvar::service {
namespace {

using tolvar_test::csv;
using tolvar_test::nameOf;

TEST(CsvImporter, ReadsBoundsAsDottedQuadsAndIntegers) {
  const auto result = csv("start,end\n1.0.0.0,1.0.0.255\n16777472,16777473\n");
  ASSERT_EQ(result.table.ranges.size(), 2u);
  EXPECT_EQ(result.table.ranges[0].startIP, 0x01000000u);
  EXPECT_EQ(result.table.ranges[0].endIP, 0x010000FFu);
  EXPECT_EQ(result.table.ranges[1].startIP, 0x01000100u);
  EXPECT_EQ(result.table.ranges[1].endIP, 0x01000101u);
}

TEST(CsvImporter, ReadsNetworks) {
  const auto result = csv("network\n192.0.2.64/26\n255.255.255.255/32\n0.0.0.0/1\n");
  ASSERT_EQ(result.table.ranges.size(), 3u);
  EXPECT_EQ(result.table.ranges[0].startIP, 0u);
  EXPECT_EQ(result.table.ranges[0].endIP, 0x7FFFFFFFu);
  EXPECT_EQ(result.table.ranges[1].startIP, 0xC0000240u);
  EXPECT_EQ(result.table.ranges[1].endIP, 0xC000027Fu);
  EXPECT_EQ(result.table.ranges[2].startIP, 0xFFFFFFFFu);
}

TEST(CsvImporter, ColumnsComeInAnyOrderAndCase) {
  const auto result = csv("Oper,END,country,Start\nNet,1.0.0.9,Germany,1.0.0.0\n");
  ASSERT_EQ(result.table.ranges.size(), 1u);
  EXPECT_EQ(result.table.ranges[0].endIP, 0x01000009u);
  EXPECT_EQ(result.table.ranges[0].place, 276000000000);
  EXPECT_EQ(nameOf(result.table, 6, result.table.ranges[0].oper), "Net");
}

TEST(CsvImporter, GivesOtherNamesIdsFromOneByTheirOrder) {
  const auto result =
      csv("network,extend,oper,nettype,apn\n"
          "1.0.0.0/24,zoo,B,fixed,web\n"
          "2.0.0.0/24,bar,A,mobile,\n"
          "3.0.0.0/24,,10,,2\n");
  const auto& ranges = result.table.ranges;
  ASSERT_EQ(ranges.size(), 3u);
  EXPECT_EQ(ranges[0].extend, 2u);
  EXPECT_EQ(ranges[1].extend, 1u);
  EXPECT_EQ(ranges[2].extend, 0u);
  EXPECT_EQ(ranges[0].oper, 3u);
  EXPECT_EQ(ranges[2].oper, 1u) << "a number is a name like any other";
  EXPECT_EQ(nameOf(result.table, 6, 1), "10");
  EXPECT_EQ(nameOf(result.table, 7, ranges[1].nettype), "mobile");
  EXPECT_EQ(nameOf(result.table, 8, ranges[0].apn), "web");
  EXPECT_EQ(ranges[1].apn, 0u);
}

TEST(CsvImporter, ReadsLabelsByTextAndNumber) {
  const auto result = csv(
      "network,flable\n1.0.0.0/24,FROM_QK\n2.0.0.0/24,FROM_JN_HVM\n3.0.0.0/24,PLEX\n4.0.0.0/24,9\n"
      "5.0.0.0/24,\n");
  std::vector<std::uint32_t> labels;
  for (const auto& range : result.table.ranges) labels.push_back(range.flable);
  EXPECT_EQ(labels, (std::vector<std::uint32_t>{1, 7, 15, 9, 0}));
}

TEST(CsvImporter, ResultDoesNotDependOnTheOrderOfTheRows) {
  std::vector<std::string> rows;
  std::mt19937 random(7);
  for (int i = 0; i < 200; ++i) {
    rows.push_back("10.0." + std::to_string(i) + ".0/24,C" + std::to_string(random() % 5) + ",P" +
                   std::to_string(random() % 9) + ",O" + std::to_string(random() % 30) + "\n");
  }
  const auto text = [&] {
    std::string all = "network,country,province,oper\n";
    for (const std::string& row : rows) all += row;
    return all;
  };
  const ImportResult first = csv(text());
  std::shuffle(rows.begin(), rows.end(), random);
  const ImportResult second = csv(text());
  EXPECT_EQ(first.ids, second.ids);
  ASSERT_EQ(first.table.ranges.size(), second.table.ranges.size());
  for (std::size_t i = 0; i < first.table.ranges.size(); ++i) {
    const auto& a = first.table.ranges[i];
    const auto& b = second.table.ranges[i];
    EXPECT_FALSE(a < b || b < a) << i;
  }
}

TEST(CsvImporter, KeepsAdjacentRangesApart) {
  EXPECT_EQ(csv("start,end,country\n1,5,DE\n6,9,DE\n").table.ranges.size(), 2u);
}

TEST(CsvImporter, PassesOverCommentsBeforeTheHeader) {
  const auto result = csv("\xEF\xBB\xBF# who, what\r\n\r\n#x\r\nnetwork\r\n1.0.0.0/8\r\n");
  EXPECT_EQ(result.table.ranges.size(), 1u);
}

TEST(CsvImporter, AHeaderAloneIsAnEmptyTableWithAWarning) {
  const auto result = csv("network,country\n");
  EXPECT_TRUE(result.table.ranges.empty());
  ASSERT_EQ(result.warnings.size(), 1u);
  EXPECT_EQ(result.warnings[0].text(), "t.csv: the file holds no ranges; the table is empty");
}

TEST(CsvImporter, WarnsOfAccessPointIdsThatLookupsCut) {
  std::string text = "start,end,apn\n";
  for (int i = 0; i < 257; ++i) {
    const std::string number = std::to_string(1000 + i);
    text += number + "," + number + ",a" + number + "\n";
  }
  const auto result = csv(text);
  ASSERT_EQ(result.warnings.size(), 1u);
  EXPECT_EQ(result.warnings[0].text(),
            "t.csv:257:11: access point \"a1255\" gets id 256; 2 ids are above 255, and lookups "
            "report only their low 8 bits");
}

TEST(CsvImporter, AllCodesFitTheirPlace) {
  const auto result = csv("network,district\n1.0.0.0/8,\"" + std::string(107, 'x') + "\"\n");
  EXPECT_EQ(nameOf(result.table, 4, result.table.ranges[0].place), std::string(107, 'x'));
}

TEST(ImportTable, TellsTheFormsApartByContent) {
  const tolvar_test::TempDir dir;
  tolvar_test::writeFile(dir.file("a"), "# note\nnetwork,country\n1.0.0.0/8,DE\n");
  tolvar_test::writeFile(dir.file("b"), "# note\n\n16777216,16777471,AU\n");
  EXPECT_EQ(importTable(dir.file("a")).table.ranges[0].endIP, 0x01FFFFFFu);
  EXPECT_EQ(importTable(dir.file("b")).table.ranges[0].place, 36000000000);
}

// Large enough for anything quadratic, or anything that copies the file again and again, to show.
TEST(ImportTable, ReadsALargeFile) {
  constexpr std::uint32_t kRows = 300000;
  std::string text = "start,end,country,province,city,district,oper,nettype\n";
  for (std::uint32_t i = 0; i < kRows; ++i) {
    text += formatIPv4(i * 256) + "," + formatIPv4(i * 256 + 255) + ",Germany,Province " +
            std::to_string(i % 16) + ",City " + std::to_string(i % 512) + ",\"District " +
            std::to_string(i % 4096) + "\",Operator " + std::to_string(i % 1000) + ",fixed\n";
  }
  const tolvar_test::TempDir dir;
  tolvar_test::writeFile(dir.file("large.csv"), text);
  const auto result = importTable(dir.file("large.csv"));
  ASSERT_EQ(result.table.ranges.size(), kRows);
  EXPECT_EQ(tolvar_test::placeNames(result.table, result.table.ranges[299999]),
            "Germany/Province 15/City 479/District 991");
}

}  // namespace
}  // namespace tolvar::service
