#include "service/csv_exporter.h"

#include <gmock/gmock.h>

#include <random>

#include "tests/service/import_support.h"

namespace {

using testing::HasSubstr;
using namespace tolvar::service;

struct Made {
  TableVersion table;
  IdRegistry ids;
};

Made made(const std::string& text, const IdRegistry& ids = {}) {
  ImportOptions options;
  options.ids = ids;
  ImportResult result = tolvar_test::csv(text, options);
  return {TableVersion(std::move(result.table), 1), result.ids};
}

/// What a new database makes of an exported text.
Made imported(const std::string& text) { return made(text, exportedIds(text)); }

void expectSame(const TableVersion& a, const TableVersion& b) {
  EXPECT_EQ(a.digest(), b.digest());
  ASSERT_EQ(a.codes().size(), b.codes().size());
  for (std::size_t i = 0; i < a.codes().size(); ++i) {
    EXPECT_EQ(a.codes()[i].codeType, b.codes()[i].codeType);
    EXPECT_EQ(a.codes()[i].ID, b.codes()[i].ID);
    EXPECT_EQ(a.codes()[i].content, b.codes()[i].content);
  }
}

void expectRoundTrip(const Made& before) {
  const std::string text = exportCsv(before.table, before.ids);
  const Made after = imported(text);
  expectSame(before.table, after.table);
  EXPECT_TRUE(before.ids == after.ids);
  EXPECT_EQ(exportCsv(after.table, after.ids), text);
}

std::string faultOf(const std::string& text) {
  try {
    exportedIds(text);
  } catch (const std::invalid_argument& error) {
    return error.what();
  }
  return "";
}

TEST(CsvExporter, EveryColumnComesBack) {
  expectRoundTrip(
      made("start,end,country,province,city,district,extend,oper,nettype,apn,flable\n"
           "1.0.0.0,1.0.0.255,Germany,Nordmark,Altenhafen,Hafen,campus,Netz,fixed,web,FROM_QK\n"
           "2.0.0.0,2.0.0.255,,,,,,,,,\n"
           "255.255.255.0,255.255.255.255,,,Stadt,,,,,,PLEX\n"));
}

TEST(CsvExporter, NamesWithCommasQuotesBlanksAndHashesComeBack) {
  expectRoundTrip(
      made("start,end,country,oper,apn\n"
           "1.0.0.0,1.0.0.1,\"Sark, Greater\",\"say \"\"hi\"\"\",\" blank \"\n"
           "1.0.0.2,1.0.0.3,#1,\"\"\"\",Südfeld\n"));
}

TEST(CsvExporter, IdsOfANameThatCameLateComeBack) {
  const Made first = made("start,end,oper\n1.0.0.0,1.0.0.1,Zeta\n");
  const Made second =
      made("start,end,oper\n1.0.0.0,1.0.0.1,Zeta\n2.0.0.0,2.0.0.1,Alpha\n", first.ids);
  ASSERT_EQ(second.table.ranges()[0].oper, 1u);  // without history, Alpha would be 1
  ASSERT_EQ(second.table.ranges()[1].oper, 2u);
  expectRoundTrip(second);
}

TEST(CsvExporter, IdsOfNamesThatLeftStayTaken) {
  const Made first = made("start,end,oper\n1.0.0.0,1.0.0.1,Alpha\n2.0.0.0,2.0.0.1,Beta\n");
  const Made second = made("start,end,oper\n1.0.0.0,1.0.0.1,Alpha\n", first.ids);
  const Made copy = imported(exportCsv(second.table, second.ids));
  const Made third = made("start,end,oper\n1.0.0.0,1.0.0.1,Gamma\n", copy.ids);
  EXPECT_EQ(third.table.ranges()[0].oper, 3u);
}

TEST(CsvExporter, CountriesThatShareANameKeepTheirIds) {
  // "UK" and "GB" are two ids with one name.
  expectRoundTrip(
      made("start,end,country\n1.0.0.0,1.0.0.1,UK\n2.0.0.0,2.0.0.1,GB\n"
           "3.0.0.0,3.0.0.1,XQ\n4.0.0.0,4.0.0.1,??\n"));
}

TEST(CsvExporter, SpellingsOfCountriesComeBack) {
  expectRoundTrip(
      made("start,end,country\n1.0.0.0,1.0.0.1,GERMANY\n2.0.0.0,2.0.0.1,FR\n"
           "3.0.0.0,3.0.0.1,France\n4.0.0.0,4.0.0.1,Atlantis\n"));
}

TEST(CsvExporter, AnEmptyTableComesBack) { expectRoundTrip(made("start,end\n")); }

TEST(CsvExporter, RandomTablesComeBack) {
  std::mt19937 random(7);
  const std::vector<std::string> names{"",    "A",     "B, C", "\"q\"", "D",    "Ä",
                                       "E F", " lead", "#",    "DE",    "Peru", "1.2.3.4"};
  for (int round = 0; round < 50; ++round) {
    std::string text = "start,end,country,province,city,district,extend,oper,nettype,apn,flable\n";
    for (std::uint32_t row = 0; row < 40; ++row) {
      text += std::to_string(row * 16) + "," + std::to_string(row * 16 + random() % 16);
      for (int column = 0; column < 8; ++column) {
        std::string field = "\"";
        for (const char c : names[random() % names.size()])
          field += c == '"' ? std::string("\"\"") : std::string(1, c);
        text += "," + field + "\"";
      }
      text += "," + (random() % 2 == 0 ? std::string() : std::to_string(1 + random() % 15)) + "\n";
    }
    expectRoundTrip(made(text));
  }
}

TEST(CsvExporter, AnIdWithoutANameCannotBeExported) {
  TableData data;
  data.ranges.emplace_back().oper = 5;
  try {
    exportCsv(TableVersion(data, 1), {});
    FAIL() << "it was exported";
  } catch (const std::runtime_error& error) {
    EXPECT_THAT(error.what(), HasSubstr("operator 5 has no name"));
  }
}

TEST(CsvExporter, NamesWhoseIdsTheRegistryDoesNotKnowCannotBeExported) {
  const Made first = made("start,end,oper\n1.0.0.0,1.0.0.1,Zeta\n");
  const Made second =
      made("start,end,oper\n1.0.0.0,1.0.0.1,Zeta\n2.0.0.0,2.0.0.1,Alpha\n", first.ids);
  EXPECT_THROW(exportCsv(second.table, {}), std::runtime_error);
}

TEST(ExportedIds, OtherCommentsAndWindowsLineEndsDoNotMatter) {
  const IdRegistry ids = exportedIds(
      "\xEF\xBB\xBF# "
      "mine\r\n#id\t6\t0\t3\tNetz\r\n#\r\n#id\t2\t276\t276004\tBayern\r\nstart,end\r\n"
      "#id\t6\t0\t9\tlate\r\n");
  EXPECT_EQ(ids.size(), 2u);
  EXPECT_EQ(ids.find({CodeType::Oper, 0, "Netz"}), 3);
  EXPECT_EQ(ids.find({CodeType::Province, 276, "Bayern"}), 276004);
}

TEST(ExportedIds, AFaultNamesItsLine) {
  EXPECT_THAT(faultOf("# a\n#id\t6\t0\tx\tNetz\n"), HasSubstr("line 2: #id: expected type"));
  EXPECT_THAT(faultOf("#id\t9\t0\t1\tNetz\n"), HasSubstr("line 1: #id"));
  EXPECT_THAT(faultOf("#id\t6\t0\t1\tNetz\n#id\t6\t0\t1\tFunk\n"), HasSubstr("line 2: #id: id 1"));
}

TEST(ExportedIds, AnIdThatItsParentDoesNotBeginIsRefused) {
  EXPECT_THAT(faultOf("#id\t2\t276\t277001\tBayern\n"), HasSubstr("does not lie below"));
  EXPECT_THAT(faultOf("#id\t2\t276\t276000\tBayern\n"), HasSubstr("does not lie below"));
}

TEST(ExportedIds, AnIdThatTheImporterNeverGivesIsRefused) {
  EXPECT_THAT(faultOf("#id\t1\t0\t276\tLand\n"),
              HasSubstr("the country id 276 is not from 1000 to 2999"));
  EXPECT_THAT(faultOf("#id\t6\t5\t1\tNetz\n"),
              HasSubstr("the operator id 1 has the parent 5; expected 0"));
  EXPECT_THAT(faultOf("#id\t6\t0\t4294967296\tNetz\n"),
              HasSubstr("the operator id 4294967296 is not from 1 to 4294967295"));
}

TEST(ExportedIds, OfAFileThatWasReadAndFaultsNameIt) {
  EXPECT_EQ(exportedIds(TextSource("t.csv", "start,end\n")).size(), 0u);
  EXPECT_EQ(exportedIds(TextSource("t.csv", "#id\t6\t0\t3\tNetz\nstart,end\n")).size(), 1u);
  try {
    exportedIds(TextSource("t.csv", "# a\n#id\t6\n"));
    FAIL() << "it was taken";
  } catch (const std::runtime_error& error) {
    EXPECT_THAT(error.what(), HasSubstr("t.csv: line 2: #id: expected type"));
  }
}

TEST(MergeIds, WhatIsFreeComesIn) {
  IdRegistry own;
  own.restore({CodeType::Oper, 0, "Netz"}, 1);
  IdRegistry other;
  other.restore({CodeType::Oper, 0, "Netz"}, 1);
  other.restore({CodeType::Oper, 0, "Funk"}, 2);
  EXPECT_EQ(mergeIds(own, other), 0u);
  EXPECT_EQ(own.find({CodeType::Oper, 0, "Funk"}), 2);
}

TEST(MergeIds, WhatIsTakenStaysOutWithThePlacesBelow) {
  IdRegistry own;
  own.restore({CodeType::Province, 276, "Nordmark"}, 276001);
  IdRegistry other;
  other.restore({CodeType::Province, 276, "Bayern"}, 276001);
  other.restore({CodeType::City, 276001, "Passau"}, 276001001);
  other.restore({CodeType::District, 276001001, "Altstadt"}, 276001001001);
  other.restore({CodeType::Province, 276, "Hessen"}, 276002);
  EXPECT_EQ(mergeIds(own, other), 3u);
  EXPECT_EQ(own.size(), 2u);
  EXPECT_EQ(own.find({CodeType::Province, 276, "Hessen"}), 276002);
}

}  // namespace
