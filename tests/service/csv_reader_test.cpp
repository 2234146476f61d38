#include "service/csv_reader.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace tolvar::service {
namespace {

using testing::ElementsAre;

struct Parsed {
  std::vector<std::vector<std::string>> rows;
  std::string faults;
};

Parsed parse(const std::string& text) {
  const TextSource source("t.csv", text);
  FaultList faults(source);
  CsvReader reader(source, source.begin(), faults);
  Parsed parsed;
  std::vector<CsvField> fields;
  while (reader.next(fields)) {
    auto& row = parsed.rows.emplace_back();
    for (const CsvField& field : fields) row.emplace_back(field.text);
  }
  try {
    faults.throwIfAny();
  } catch (const ImportError& error) {
    parsed.faults = error.what();
  }
  return parsed;
}

TEST(CsvReader, SplitsRowsWithEitherLineEnd) {
  EXPECT_THAT(parse("a,b\n1,2\n").rows, ElementsAre(ElementsAre("a", "b"), ElementsAre("1", "2")));
  EXPECT_THAT(parse("a,b\r\n1,2\r\n").rows,
              ElementsAre(ElementsAre("a", "b"), ElementsAre("1", "2")));
}

TEST(CsvReader, TakesALastLineWithoutItsEnd) {
  EXPECT_THAT(parse("a,b\n1,2").rows, ElementsAre(ElementsAre("a", "b"), ElementsAre("1", "2")));
  EXPECT_THAT(parse("a,\"b\"\r").rows, ElementsAre(ElementsAre("a", "b")));
}

TEST(CsvReader, KeepsEmptyFields) {
  EXPECT_THAT(parse(",,\n,\"\",x\n").rows,
              ElementsAre(ElementsAre("", "", ""), ElementsAre("", "", "x")));
}

TEST(CsvReader, SkipsBlankLines) {
  EXPECT_THAT(parse("\n \t\r\na\n\n\nb\n\n").rows, ElementsAre(ElementsAre("a"), ElementsAre("b")));
}

TEST(CsvReader, QuotesProtectCommasLineEndsAndBlanks) {
  EXPECT_THAT(parse("\"a,b\",\" c \",\"d\ne\"\n").rows,
              ElementsAre(ElementsAre("a,b", " c ", "d\ne")));
}

TEST(CsvReader, DoubledQuotesStandForOne) {
  EXPECT_THAT(parse("\"say \"\"hi\"\" now\",\"\"\"\",\"\"\"x\"\n").rows,
              ElementsAre(ElementsAre("say \"hi\" now", "\"", "\"x")));
}

TEST(CsvReader, CutsBlanksAroundUnquotedFields) {
  EXPECT_THAT(parse(" a ,\tb c\t, \"d\" \n").rows, ElementsAre(ElementsAre("a", "b c", "d")));
}

TEST(CsvReader, PassesOverAByteOrderMark) {
  EXPECT_THAT(parse("\xEF\xBB\xBF\"a\",b\n").rows, ElementsAre(ElementsAre("a", "b")));
}

TEST(CsvReader, EmptyTextHasNoRows) { EXPECT_TRUE(parse("").rows.empty()); }

TEST(CsvReader, UnterminatedQuoteNamesWhereItOpens) {
  const Parsed parsed = parse("a,b\n1,\"2\n3,4\n");
  EXPECT_EQ(parsed.faults, "t.csv:2:3: quoted field does not end; expected a closing double quote");
  EXPECT_THAT(parsed.rows, ElementsAre(ElementsAre("a", "b")));
}

TEST(CsvReader, StrayQuoteIsAFaultAndReadingGoesOnWithTheNextLine) {
  const Parsed parsed = parse("a\"b,c\nd,e\n");
  EXPECT_EQ(parsed.faults,
            "t.csv:1:2: stray double quote; a field that holds one must be quoted whole");
  EXPECT_THAT(parsed.rows, ElementsAre(ElementsAre("d", "e")));
}

TEST(CsvReader, TextBehindAClosingQuoteIsAFault) {
  EXPECT_EQ(parse("\"a\"b,c\n").faults,
            "t.csv:1:4: text behind a closing double quote; expected a comma or a line end");
}

TEST(CsvReader, AFaultInTheLastLineWithoutItsEndIsTheEnd) {
  EXPECT_EQ(parse("x\"").faults,
            "t.csv:1:2: stray double quote; a field that holds one must be quoted whole");
}

TEST(CsvReader, ColumnsCountCharactersNotBytes) {
  EXPECT_EQ(parse("\xEF\xBB\xBFZürich \"x\n").faults,
            "t.csv:1:8: stray double quote; a field that holds one must be quoted whole");
}

}  // namespace
}  // namespace tolvar::service
