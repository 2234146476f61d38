#include "records/records.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <limits>
#include <random>
#include <string>
#include <type_traits>
#include <vector>

#include "tests/records/encoding_support.h"

namespace {

using namespace ravel;
using namespace tolvar_test;
using qel::VekDecodeMismatch;
using qel::VekDecodeRequireNotExist;

static_assert(std::is_empty_v<VekStructBase>);
static_assert(std::is_base_of_v<VekStructBase, IPInfo>);
static_assert(std::is_base_of_v<VekStructBase, IPAttribute>);
static_assert(std::is_base_of_v<VekStructBase, IPProperty>);
static_assert(std::is_base_of_v<VekStructBase, downloadInfo>);
static_assert(std::is_base_of_v<VekStructBase, CodeInfo>);
static_assert(std::is_base_of_v<VekStructBase, CheckInfo>);
static_assert(std::is_base_of_v<VekStructBase, ClientConf>);
static_assert(std::is_base_of_v<VekStructBase, CheckReq>);
static_assert(std::is_base_of_v<VekStructBase, ReportInfo>);
static_assert(std::is_signed_v<decltype(CheckInfo::isReset)>);
static_assert(std::is_signed_v<decltype(downloadInfo::isdownloadReset)>);
static_assert(ECountry == 0 && EProvince == 1 && ECity == 2 && EOperator == 3);

void expectDefault(const ClientConf& conf) {
  EXPECT_FALSE(conf.statisOpen);
  EXPECT_TRUE(conf.simpleLogCitys.empty());
  EXPECT_EQ(conf.simplingRate, 0);
  EXPECT_EQ(conf.logBufferLimit, 1000);
  EXPECT_FALSE(conf.logUnknownIp);
  EXPECT_EQ(conf.confVersion, 1);
}

void expectDefault(const CheckReq& request) {
  EXPECT_EQ(request.contentMd5, "");
  EXPECT_EQ(request.apiVersion, 0u);
  EXPECT_EQ(request.confVersion, 0);
}

TEST(Records, ADefaultConfigurationHasALimitOf1000AndVersion1) {
  ClientConf conf;
  expectDefault(conf);
  conf = {{}, true, {"Oslo"}, 5, 6, true, 7};
  conf.resetDefautlt();
  expectDefault(conf);
}

TEST(Records, ADefaultCheckRequestHasConfigurationVersion0) {
  CheckReq request;
  expectDefault(request);
  request = {{}, "0", 1, 2};
  request.resetDefautlt();
  expectDefault(request);
}

TEST(Records, TheOtherRecordsAreZeroAndEmptyByDefault) {
  IPInfo info{{}, 1, 2, 3, 4, 5, 6, 7, 8, 9};
  info.resetDefautlt();
  EXPECT_EQ(info.country | info.province | info.city | info.extend | info.oper | info.nettype |
                info.apn | info.flable,
            0u);
  EXPECT_EQ(info.district, 0);
  IPProperty property{{}, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10};
  property.resetDefautlt();
  EXPECT_EQ(property.timesTamp | property.sequence | property.startIP | property.endIP |
                property.extend | property.oper | property.nettype | property.apn | property.flable,
            0u);
  EXPECT_EQ(property.place, 0);
  downloadInfo page{{}, 1, 2, 3, {IPProperty()}};
  page.resetDefautlt();
  EXPECT_EQ(page.highMaxIndex | page.lowMaxIndex, 0u);
  EXPECT_EQ(page.isdownloadReset, 0);
  EXPECT_TRUE(page.IPContent.empty());
  CheckInfo check{{}, 1, 1, true};
  check.resetDefautlt();
  EXPECT_EQ(check.isNetFlow, 0);
  EXPECT_EQ(check.isReset, 0);
  EXPECT_FALSE(check.updateConf);
  CodeInfo code{{}, 1, 2, "x"};
  code.resetDefautlt();
  EXPECT_EQ(code.codeType, 0);
  EXPECT_EQ(code.ID, 0);
  EXPECT_EQ(code.content, "");
  ReportInfo report{{}, EOperator, "x"};
  report.resetDefautlt();
  EXPECT_EQ(report.type, ECountry);
  EXPECT_EQ(report.name, "");
}

TEST(Records, ARangeOfZerosEncodesToEightBytes) {
  IPAttribute range{{}, 1, 2, 3, 4, 5, 6, 7, 8};
  range.resetDefautlt();
  EXPECT_EQ(encoded(range), bytes({0x0C, 0x1C, 0x2C, 0x3C, 0x4C, 0x5C, 0x6C, 0x7C}));
  EXPECT_EQ(encoded(IPAttribute()), encoded(range));
}

TEST(Records, ARangeEncodesAsTheDocumentShows) {
  IPAttribute range;
  range.startIP = 0x08080800;
  range.endIP = 0xC0A80001;
  range.place = 840000000000;
  range.extend = 0;
  range.oper = 100;
  range.nettype = 300;
  range.apn = 3;
  range.flable = 70000;
  EXPECT_EQ(encoded(range), bytes({0x02, 0x08, 0x08, 0x08, 0x00,                          //
                                   0x13, 0x00, 0x00, 0x00, 0x00, 0xC0, 0xA8, 0x00, 0x01,  //
                                   0x23, 0x00, 0x00, 0x00, 0xC3, 0x93, 0xE6, 0xD0, 0x00,  //
                                   0x3C,                                                  //
                                   0x40, 0x64,                                            //
                                   0x51, 0x01, 0x2C,                                      //
                                   0x60, 0x03,                                            //
                                   0x72, 0x00, 0x01, 0x11, 0x70}));
}

TEST(Records, ACodeEncodesToTheseBytes) {
  const CodeInfo code{{}, 2, 110000, "abc"};
  EXPECT_EQ(encoded(code),
            bytes({0x00, 0x02, 0x12, 0x00, 0x01, 0xAD, 0xB0, 0x26, 0x03, 'a', 'b', 'c'}));
}

TEST(Records, EveryFieldOfARangeIsRequired) {
  for (int missing = 0; missing < 8; ++missing) {
    std::string wire;
    for (int tag = 0; tag < 8; ++tag)
      if (tag != missing) wire += reference::integer(tag + 1, tag);
    TightReader reader(wire);
    EXPECT_EQ(textOf<VekDecodeRequireNotExist>([&] { IPAttribute().readFrom(reader); }),
              "require field not exist, tag: " + std::to_string(missing));
  }
}

TEST(Records, EveryFieldOfACodeIsRequired) {
  const std::string fields[] = {reference::integer(2, 0), reference::integer(110000, 1),
                                reference::text("abc", 2)};
  for (int missing = 0; missing < 3; ++missing) {
    std::string wire;
    for (int tag = 0; tag < 3; ++tag)
      if (tag != missing) wire += fields[tag];
    TightReader reader(wire);
    EXPECT_EQ(textOf<VekDecodeRequireNotExist>([&] { CodeInfo().readFrom(reader); }),
              "require field not exist, tag: " + std::to_string(missing));
  }
}

TEST(Records, AFieldOfAnotherTypeIsRefused) {
  TightReader range(reference::integer(1, 0) + reference::text("x", 1));
  EXPECT_EQ(textOf<VekDecodeMismatch>([&] { IPAttribute().readFrom(range); }),
            "read 'Int64' type mismatch, tag: 1, get type: 6.");
  TightReader type(reference::integer(5000000000, 0));
  EXPECT_EQ(textOf<VekDecodeMismatch>([&] { CodeInfo().readFrom(type); }),
            "read 'Int32' type mismatch, tag: 0, get type: 3.");
  TightReader content(reference::integer(1, 0) + reference::integer(2, 1) +
                      reference::integer(3, 2));
  EXPECT_EQ(textOf<VekDecodeMismatch>([&] { CodeInfo().readFrom(content); }),
            "read 'string' type mismatch, tag: 2, get type: 0.");
}

TEST(Records, FieldsOfANewerWriterArePassedOver) {
  TightReader reader(encoded(CodeInfo{{}, 2, 110000, "abc"}) + reference::text("new", 3) +
                     reference::head(10, 4) + reference::head(11, 0) + reference::integer(5, 5));
  CodeInfo code;
  code.readFrom(reader);
  EXPECT_EQ(code.content, "abc");
  int later = 0;
  reader.read(later, 5, true);
  EXPECT_EQ(later, 5);
}

TEST(Records, CodesAreCopiedMemberWise) {
  const CodeInfo original{{}, 3, 156110108, "Bergen"};
  CodeInfo copy(original), assigned;
  assigned = copy;
  copy.content = "changed";
  EXPECT_EQ(assigned.codeType, 3);
  EXPECT_EQ(assigned.ID, 156110108);
  EXPECT_EQ(assigned.content, "Bergen");
}

TEST(Records, PropertiesAreOrderedByTheFirstFieldThatDiffers) {
  // Each step raises one field and lowers every later one, so that only the right order passes.
  const std::vector<std::function<void(IPProperty&, bool)>> fields = {
      [](IPProperty& p, bool high) { p.startIP = high ? 0x80000000u : 1; },
      [](IPProperty& p, bool high) { p.endIP = high ? 0xFFFFFFFFu : 1; },
      [](IPProperty& p, bool high) {
        p.place = high ? 0 : std::numeric_limits<std::int64_t>::min();
      },
      [](IPProperty& p, bool high) { p.extend = high ? 0x80000000u : 1; },
      [](IPProperty& p, bool high) { p.oper = high ? 0x80000000u : 1; },
      [](IPProperty& p, bool high) { p.nettype = high ? 0x80000000u : 1; },
      [](IPProperty& p, bool high) { p.apn = high ? 0x80000000u : 1; },
      [](IPProperty& p, bool high) { p.flable = high ? 0x80000000u : 1; },
  };
  for (std::size_t decides = 0; decides < fields.size(); ++decides) {
    IPProperty lower, higher;
    fields[decides](lower, false);
    fields[decides](higher, true);
    for (std::size_t later = decides + 1; later < fields.size(); ++later) {
      fields[later](lower, true);
      fields[later](higher, false);
    }
    EXPECT_TRUE(lower < higher) << decides;
    EXPECT_FALSE(higher < lower) << decides;
  }
}

TEST(Records, TheCursorTakesNoPartInTheOrder) {
  IPProperty older, newer;
  older.timesTamp = 1;
  newer.timesTamp = 2;
  newer.sequence = 9;
  EXPECT_FALSE(older < newer);
  EXPECT_FALSE(newer < older);
}

TEST(Records, SortingKeepsPropertiesThatDifferOnlyInTheCursorAdjacent) {
  vIPProperty table;
  for (std::uint32_t copy = 0; copy < 20; ++copy) {
    for (std::uint32_t start = 0; start < 50; ++start) {
      IPProperty property;
      property.timesTamp = copy;
      property.startIP = start * 1000;
      property.endIP = start * 1000 + 999;
      table.push_back(property);
    }
  }
  std::shuffle(table.begin(), table.end(), std::mt19937(1));
  std::sort(table.begin(), table.end());
  for (std::size_t i = 0; i < table.size(); ++i) ASSERT_EQ(table[i].startIP, i / 20 * 1000);
}

TEST(Records, CodesAreOrderedByTypeThenIdThenBytes) {
  const CodeInfo ordered[] = {
      {{}, -1, 9, "z"},       {{}, 1, -5, "z"},         {{}, 1, 7, ""},
      {{}, 1, 7, "a"},        {{}, 1, 7, "ab"},         {{}, 1, 7, "b"},
      {{}, 1, 7, "\xC3\x85"}, {{}, 1, 5000000000, "a"}, {{}, 2, 1, "a"},
  };
  for (std::size_t i = 0; i < std::size(ordered); ++i)
    for (std::size_t j = 0; j < std::size(ordered); ++j)
      EXPECT_EQ(ordered[i] < ordered[j], i < j) << i << " " << j;
}

}  // namespace
