#include "src/index/tuple_names.h"

#include <gtest/gtest.h>

#include "src/index/lookup_snapshot.h"

namespace tolvar_test {
namespace {

using tolvar::CodeNames;
using tolvar::LookupSnapshot;
using tolvar::RangeIndex;
using tolvar::TupleNames;
using Maps = std::unordered_map<std::uint64_t, ravel::CodeInfo>[8];

ravel::IPProperty range(std::uint32_t ip, std::int64_t place) {
  ravel::IPProperty result;
  result.startIP = ip;
  result.endIP = ip;
  result.place = place;
  result.extend = 1;
  result.oper = 2;
  result.nettype = 3;
  result.apn = 4;
  result.flable = 15;
  return result;
}

void fill(Maps& maps) {
  maps[0][86].content = "country";
  maps[1][86110].content = "province";
  maps[2][86110105].content = "city";
  maps[3][86110105001].content = "district";
  maps[4][1].content = "extend";
  maps[5][2].content = "oper";
  maps[6][3].content = "nettype";
  maps[7][4].content = "apn";
}

std::shared_ptr<const RangeIndex> indexOf(const ravel::vIPProperty& table) {
  return std::make_shared<const RangeIndex>(RangeIndex::build(table));
}

TEST(TupleNames, NamesTheNineFields) {
  Maps maps;
  fill(maps);
  const auto index = indexOf({range(1, 86110105001), range(2, 87)});
  const TupleNames names(*index, std::make_shared<const CodeNames>(maps));
  const IPNameView row = names.row(index->findTuple(1));
  EXPECT_EQ(row.country(), "country");
  EXPECT_EQ(row.province(), "province");
  EXPECT_EQ(row.city(), "city");
  EXPECT_EQ(row.district(), "district");
  EXPECT_EQ(row.extend(), "extend");
  EXPECT_EQ(row.oper(), "oper");
  EXPECT_EQ(row.nettype(), "nettype");
  EXPECT_EQ(row.apn(), "apn");
  EXPECT_EQ(row.flable(), "PLEX");
  const IPNameView unknown = names.row(index->findTuple(2));
  EXPECT_EQ(unknown.country(), "");
  EXPECT_EQ(unknown.district(), "");
  EXPECT_EQ(unknown.oper(), "oper");
}

TEST(TupleNames, NoRangeHasNoNames) {
  Maps maps;
  for (auto& map : maps) map[0].content = "zero";
  const auto index = indexOf({});
  const TupleNames names(*index, std::make_shared<const CodeNames>(maps));
  ASSERT_EQ(names.tupleCount(), 1u);
  EXPECT_EQ(names.row(0).country(), "");
  EXPECT_EQ(names.row(0).flable(), "");
}

TEST(TupleNames, TheIdZeroMayHaveAName) {
  Maps maps;
  maps[0][0].content = "nowhere";
  const auto index = indexOf({range(1, 999)});
  const TupleNames names(*index, std::make_shared<const CodeNames>(maps));
  EXPECT_EQ(names.row(index->findTuple(1)).country(), "nowhere");
}

TEST(TupleNames, NamesOfAnyLengthAreWhole) {
  Maps maps;
  ravel::vIPProperty table;
  for (std::uint32_t i = 1; i < 40; ++i) {
    const std::size_t length = i < 20 ? 65525 + i : 100000 + i;
    maps[3][i].content = std::string(length, static_cast<char>('a' + i % 26));
    table.push_back(range(i, i));
  }
  const auto index = indexOf(table);
  const TupleNames names(*index, std::make_shared<const CodeNames>(maps));
  for (std::uint32_t i = 1; i < 40; ++i) {
    ASSERT_TRUE(names.row(index->findTuple(i)).district() == maps[3][i].content) << i;
  }
}

TEST(TupleNames, AgreesWithTheCodesOfEveryTuple) {
  Maps maps;
  ravel::vIPProperty table;
  for (std::uint32_t i = 0; i < 3000; ++i) {
    table.push_back(range(i, static_cast<std::int64_t>(i) * 123456789));
    table.back().oper = i % 50;
    table.back().flable = i % 20;
    if (i % 3 != 0) maps[3][i * std::uint64_t{123456789}].content = "d" + std::to_string(i);
    if (i < 45) maps[5][i].content = "o" + std::to_string(i);
  }
  const auto index = indexOf(table);
  const auto codes = std::make_shared<const CodeNames>(maps);
  const TupleNames names(*index, codes);
  for (std::uint32_t i = 0; i < 3000; ++i) {
    const IPNameView row = names.row(index->findTuple(i));
    ASSERT_EQ(row.district(), i % 3 != 0 ? "d" + std::to_string(i) : "");
    ASSERT_EQ(row.oper(), i % 50 < 45 ? "o" + std::to_string(i % 50) : "");
    ASSERT_EQ(row.flable(), tolvar::labelName(i % 20));
  }
}

TEST(TupleNames, ATableOfManyTuplesKeepsTheNamesThatFitNoRow) {
  constexpr std::uint32_t kTuples = 40000;
  const auto nameOf = [](std::uint32_t i) {
    return "d" + std::to_string(i) + (i % 5000 == 1 ? std::string(400, 'x') : "");
  };
  Maps maps;
  ravel::vIPProperty table;
  for (std::uint32_t i = 0; i < kTuples; ++i) {
    table.push_back(range(i, static_cast<std::int64_t>(i) * 7919));
    maps[3][i * std::uint64_t{7919}].content = nameOf(i);
  }
  const auto index = indexOf(table);
  const TupleNames names(*index, std::make_shared<const CodeNames>(maps));
  for (std::uint32_t i = 0; i < kTuples; ++i)
    ASSERT_EQ(names.row(index->findTuple(i)).district(), nameOf(i));
}

TEST(LookupSnapshot, NewRangesKeepTheCodesAndTheOtherWayRound) {
  Maps maps;
  fill(maps);
  const auto codes = std::make_shared<const CodeNames>(maps);
  const auto first = indexOf({range(1, 86110105001)});
  const auto second = indexOf({range(2, 86110105001)});

  const auto a = LookupSnapshot::withRanges(nullptr, first);
  EXPECT_EQ(a->names->row(a->ranges->findTuple(1)).city(), "");
  const auto b = LookupSnapshot::withCodes(a.get(), codes);
  EXPECT_EQ(b->ranges, first);
  EXPECT_EQ(b->names->row(b->ranges->findTuple(1)).city(), "city");
  const auto c = LookupSnapshot::withRanges(b.get(), second);
  EXPECT_EQ(c->codes, codes);
  EXPECT_EQ(c->ranges->findTuple(1), 0u);
  EXPECT_EQ(c->names->row(c->ranges->findTuple(2)).city(), "city");
  const auto d = LookupSnapshot::withCodes(nullptr, codes);
  EXPECT_EQ(d->ranges->rangeCount(), 0u);
  EXPECT_EQ(d->codes->find(2, 86110105), "city");
  EXPECT_EQ(LookupSnapshot::empty()->ranges->find(1), nullptr);
}

}  // namespace
}  // namespace tolvar_test
