#include <gtest/gtest.h>

#include "service/importer.h"
#include "tests/service/import_support.h"
#include "tests/support/temp_dir.h"

/// Every way in which a file can be wrong, with the exact message: file, line, column, what was
/// found and what was expected.
namespace tolvar::service {
namespace {

using tolvar_test::countriesFault;
using tolvar_test::csvFault;
using tolvar_test::TempDir;

std::string loadFault(const std::string& path, ImportOptions options = {}) {
  try {
    importTable(path, options);
  } catch (const ImportError& error) {
    return error.what();
  }
  return "";
}

TEST(ImportFaults, BadAddress) {
  EXPECT_EQ(csvFault("start,end\n1.2.3.4,1.2.3.256\n"),
            "t.csv:2:9: end \"1.2.3.256\" is no IPv4 address; expected a dotted quad or an integer "
            "from 0 to 4294967295");
  EXPECT_EQ(
      csvFault("start,end\n,5\n"),
      "t.csv:2:1: start \"\" is no IPv4 address; expected a dotted quad or an integer from 0 to "
      "4294967295");
}

TEST(ImportFaults, StartAboveEnd) {
  EXPECT_EQ(csvFault("country,start,end\nDE,1.0.0.9,1.0.0.1\n"),
            "t.csv:2:4: start 1.0.0.9 is above end 1.0.0.1; expected start not above end");
}

TEST(ImportFaults, NetworkThatIsNone) {
  EXPECT_EQ(
      csvFault("network\n1.0.0.0/33\n"),
      "t.csv:2:1: network \"1.0.0.0/33\" is no IPv4 network; expected a.b.c.d/n with n from 0 "
      "to 32");
  EXPECT_EQ(
      csvFault("network\n2001:db8::/32\n"),
      "t.csv:2:1: network \"2001:db8::/32\" is no IPv4 network; expected a.b.c.d/n with n from "
      "0 to 32");
}

TEST(ImportFaults, NetworkWithHostBits) {
  EXPECT_EQ(csvFault("network\n192.0.2.1/24\n"),
            "t.csv:2:1: network \"192.0.2.1/24\" has host bits set; expected 192.0.2.0/24");
}

TEST(ImportFaults, OverlapNamesBothLines) {
  EXPECT_EQ(csvFault("start,end\n1.0.1.0,1.0.1.9\n1.0.0.0,1.0.0.9\n1.0.0.9,1.0.0.20\n"),
            "t.csv:4:1: range 1.0.0.9-1.0.0.20 overlaps range 1.0.0.0-1.0.0.9 of line 3; expected "
            "ranges that share no address");
}

TEST(ImportFaults, OverlapIsFoundWithAWideRangeFurtherBack) {
  EXPECT_EQ(
      csvFault("start,end\n0,100\n5,6\n50,60\n"),
      "t.csv:3:1: range 0.0.0.5-0.0.0.6 overlaps range 0.0.0.0-0.0.0.100 of line 2; expected "
      "ranges that share no address\n"
      "t.csv:4:1: range 0.0.0.50-0.0.0.60 overlaps range 0.0.0.0-0.0.0.100 of line 2; expected "
      "ranges that share no address");
}

TEST(ImportFaults, ARowGivenTwiceOverlaps) {
  EXPECT_EQ(csvFault("start,end\n7,7\n7,7\n"),
            "t.csv:3:1: range 0.0.0.7-0.0.0.7 overlaps range 0.0.0.7-0.0.0.7 of line 2; expected "
            "ranges that share no address");
}

TEST(ImportFaults, UnknownColumn) {
  EXPECT_EQ(csvFault("start,end,contry\n"),
            "t.csv:1:11: unknown column \"contry\"; expected one of start, end, network, country, "
            "province, city, district, extend, oper, nettype, apn, flable");
}

TEST(ImportFaults, HeaderThatCannotBeSplitIsTheOnlyFault) {
  EXPECT_EQ(csvFault("start\",end\n1,2\n"),
            "t.csv:1:6: stray double quote; a field that holds one must be quoted whole");
}

TEST(ImportFaults, ColumnGivenTwice) {
  EXPECT_EQ(csvFault("start,end,City,city\n"),
            "t.csv:1:16: column \"city\" stands twice in the header");
}

TEST(ImportFaults, MissingColumn) {
  EXPECT_EQ(csvFault("start,country\n"),
            "t.csv:1:1: missing column end; expected start and end, or network");
  EXPECT_EQ(csvFault("end\n"),
            "t.csv:1:1: missing column start; expected start and end, or network");
  EXPECT_EQ(csvFault("country,city\n"),
            "t.csv:1:1: no column says which addresses a row is for; expected start and end, or "
            "network");
}

TEST(ImportFaults, NetworkNextToBounds) {
  EXPECT_EQ(csvFault("start,end,network\n"),
            "t.csv:1:1: columns network and start/end exclude each other; expected one of the two");
}

TEST(ImportFaults, WrongNumberOfFields) {
  EXPECT_EQ(csvFault("start,end,country\n1,2\n3,4,DE,x\n"),
            "t.csv:2:1: expected 3 fields as the header has, found 2\n"
            "t.csv:3:1: expected 3 fields as the header has, found 4");
}

TEST(ImportFaults, UnterminatedQuote) {
  EXPECT_EQ(csvFault("start,end,country\n1,2,\"Ger\n3,4,DE\n"),
            "t.csv:2:5: quoted field does not end; expected a closing double quote");
}

TEST(ImportFaults, LineNumbersCountLineEndsInsideQuotes) {
  EXPECT_EQ(
      csvFault("start,end,\"country\"\r\n1,2,\"a\r\nb\"\r\nx,4,DE\r\n"),
      "t.csv:2:5: country name \"a\\x0D\\x0Ab\" holds a control character; expected text on one "
      "line\n"
      "t.csv:4:1: start \"x\" is no IPv4 address; expected a dotted quad or an integer from 0 to "
      "4294967295");
}

TEST(ImportFaults, InvalidUtf8) {
  EXPECT_EQ(csvFault("start,end,city\n1,2,M\xFCnchen\n"),
            "t.csv:2:5: city name \"M\\xFCnchen\" is not valid UTF-8");
}

TEST(ImportFaults, NulByte) {
  EXPECT_EQ(csvFault(std::string("start,end,oper\n1,2,a\0b\n", 22)),
            "t.csv:2:5: operator name \"a\\x00b\" holds a NUL byte; expected text");
}

TEST(ImportFaults, UnknownLabel) {
  EXPECT_EQ(
      csvFault("start,end,flable\n1,2,FROM_XX\n3,4,16\n5,6,0\n"),
      "t.csv:2:5: flable \"FROM_XX\" is no label; expected a label text such as FROM_QK, or its "
      "number from 1 to 15\n"
      "t.csv:3:5: flable \"16\" is no label; expected a label text such as FROM_QK, or its "
      "number from 1 to 15\n"
      "t.csv:4:5: flable \"0\" is no label; expected a label text such as FROM_QK, or its "
      "number from 1 to 15");
}

TEST(ImportFaults, NameLongerThanANodeHolds) {
  const std::string shown = "\"" + std::string(60, 'x') + "...\"";
  EXPECT_EQ(
      csvFault("start,end,country,district\n1,2,DE," + std::string(108, 'x') + "\n"),
      "t.csv:2:8: district name " + shown + " is too long: expected at most 107 bytes, found 108");
  EXPECT_EQ(
      csvFault("start,end,oper\n1,2," + std::string(115, 'x') + "\n"),
      "t.csv:2:5: operator name " + shown + " is too long: expected at most 114 bytes, found 115");
}

TEST(ImportFaults, ALineOfCommasOrWithoutLineEndsIsToldInOne) {
  EXPECT_EQ(
      csvFault("start,end\n1,2\n" + std::string(100000, ',') + "\n5,6\n"),
      "t.csv:3:1001: more than 1000 fields in one line; expected lines that end in LF or CRLF");
  std::string text = "start,end";
  for (int i = 0; i < 2000; ++i) text += "\r1,2";
  EXPECT_EQ(
      csvFault(text),
      "t.csv:1:4005: more than 1000 fields in one line; expected lines that end in LF or CRLF");
}

TEST(ImportFaults, MoreThan999ChildrenOfOneParent) {
  std::string text = "start,end,country,province\n";
  for (int i = 0; i < 1001; ++i) {
    const std::string number = std::to_string(1000 + i);
    text += number + "," + number + ",DE,P" + number + "\n";
  }
  EXPECT_EQ(
      csvFault(text),
      "t.csv:1001:14: province name \"P1999\" is one too many: expected at most 999 provinces "
      "in \"Germany\"");
}

TEST(ImportFaults, ANameThatFindsNoIdBecauseEarlierTablesTookThem) {
  ImportOptions options;
  for (int i = 0; i < 999; ++i)
    options.ids.assign({CodeType::Province, 276, "Old" + std::to_string(i)}, 276001, 276999);
  try {
    tolvar_test::csv("start,end,country,province\n1,1,DE,Old5\n2,2,DE,New\n3,3,DE,\n", options);
    FAIL() << "the import succeeded";
  } catch (const ImportError& error) {
    EXPECT_STREQ(error.what(),
                 "t.csv:3:8: province name \"New\" is one too many: expected at most 999 provinces "
                 "in \"Germany\", those of earlier tables included, whose ids stay taken; import "
                 "into a new database to give ids anew");
  }
}

TEST(ImportFaults, MoreThan2000UnknownCountries) {
  std::string text = "start,end,country\n";
  for (int i = 0; i < 2001; ++i) {
    const std::string number = std::to_string(1000 + i);
    text += number + "," + number + ",C" + number + "\n";
  }
  EXPECT_EQ(
      csvFault(text),
      "t.csv:2002:11: country name \"C3000\" is one too many: expected at most 2000 countries "
      "in one table");
}

TEST(ImportFaults, EmptyFile) {
  const std::string expected =
      ": the file is empty; expected a header line that names columns, or lines start,end,country "
      "code";
  EXPECT_EQ(csvFault(""), "t.csv:1:1" + expected);
  EXPECT_EQ(csvFault("\n# nothing\n"), "t.csv:1:1" + expected);
}

TEST(ImportFaults, AtMostTwentyAreListed) {
  std::string text = "start,end\n";
  for (int i = 0; i < 30; ++i) text += "x,1\n";
  try {
    tolvar_test::csv(text);
    FAIL() << "the import succeeded";
  } catch (const ImportError& error) {
    ASSERT_EQ(error.faults().size(), 21u);
    EXPECT_EQ(error.faults()[19].line, 21u);
    EXPECT_EQ(error.faults()[20].text(), "t.csv: more faults follow; these are the first 20");
  }
}

TEST(ImportFaults, ExactlyTwentyAreAll) {
  std::string text = "start,end\n";
  for (int i = 0; i < 20; ++i) text += "x,1\n";
  try {
    tolvar_test::csv(text);
    FAIL() << "the import succeeded";
  } catch (const ImportError& error) {
    EXPECT_EQ(error.faults().size(), 20u);
  }
}

TEST(ImportFaults, CountryFormWithAnotherNumberOfFields) {
  EXPECT_EQ(
      countriesFault("#c\n1,2\n"),
      "geoip:2:1: expected 3 fields start,end,country code, found 2; a table with other columns "
      "begins with a header line");
}

TEST(ImportFaults, CountryFormWithBadFields) {
  EXPECT_EQ(
      countriesFault("1,x,AU\n5,4,AU\n6,7,au\n8,9,AUS\n10,11,\n"),
      "geoip:1:3: end \"x\" is no IPv4 address; expected a dotted quad or an integer from 0 to "
      "4294967295\n"
      "geoip:2:1: start 0.0.0.5 is above end 0.0.0.4; expected start not above end\n"
      "geoip:3:5: country code \"au\" is none; expected two capital letters or ??\n"
      "geoip:4:5: country code \"AUS\" is none; expected two capital letters or ??\n"
      "geoip:5:7: country code \"\" is none; expected two capital letters or ??");
}

TEST(ImportFaults, CountryFormWithAnOverlap) {
  EXPECT_EQ(countriesFault("# c\r\n1,5,AU\r\n\r\n5,9,CN\r\n"),
            "geoip:4:1: range 0.0.0.5-0.0.0.9 overlaps range 0.0.0.1-0.0.0.5 of line 2; expected "
            "ranges that share no address");
}

TEST(ImportFaults, MissingFile) {
  const TempDir dir;
  EXPECT_EQ(loadFault(dir.file("none.csv")),
            dir.file("none.csv") + ": cannot read the file: No such file or directory");
}

TEST(ImportFaults, Directory) {
  const TempDir dir;
  EXPECT_EQ(loadFault(dir.path()), dir.path() + ": is a directory; expected a text file");
}

TEST(ImportFaults, FileTooLarge) {
  const TempDir dir;
  tolvar_test::writeFile(dir.file("t.csv"), "network\n1.0.0.0/8\n");
  EXPECT_NO_THROW(TextSource::load(dir.file("t.csv"), 18));
  try {
    TextSource::load(dir.file("t.csv"), 17);
    FAIL() << "the file was read";
  } catch (const ImportError& error) {
    EXPECT_EQ(error.what(), dir.file("t.csv") + ": is larger than 17 bytes, the most that is read");
  }
}

TEST(ImportFaults, AnEndlessFileEndsAtTheLimit) {
  EXPECT_THROW(TextSource::load("/dev/zero", 1 << 22), ImportError);
}

TEST(ImportFaults, Utf16File) {
  const TempDir dir;
  tolvar_test::writeFile(dir.file("t.csv"), std::string("\xFF\xFEs\0", 4));
  EXPECT_EQ(loadFault(dir.file("t.csv")), dir.file("t.csv") + ": is UTF-16 text; expected UTF-8");
}

TEST(ImportFaults, CompressedFile) {
  const TempDir dir;
  tolvar_test::writeFile(dir.file("t.csv.gz"), std::string("\x1F\x8B\x08\0\n,", 6));
  EXPECT_EQ(loadFault(dir.file("t.csv.gz")),
            dir.file("t.csv.gz") + ": is compressed by gzip; expected text: unpack it first");
}

TEST(ImportFaults, MissingCountryListNamesThePackage) {
  const TempDir dir;
  tolvar_test::writeFile(dir.file("t.csv"), "network\n1.0.0.0/8\n");
  ImportOptions options;
  options.isoCountriesPath = dir.file("iso.json");
  EXPECT_EQ(loadFault(dir.file("t.csv"), options),
            dir.file("iso.json") +
                ": cannot read the country list (No such file or directory); "
                "install the package iso-codes or name another file");
}

}  // namespace
}  // namespace tolvar::service
