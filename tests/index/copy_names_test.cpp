#include "src/copy_names.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>

#include "src/index/tuple_names.h"

namespace tolvar_test {
namespace {

using Maps = std::unordered_map<std::uint64_t, ravel::CodeInfo>[8];

constexpr std::uint32_t kRanges = 500;

/// Range i has attributes of its own in all eight code tables.
ravel::IPProperty range(std::uint32_t i) {
  ravel::IPProperty result;
  result.startIP = result.endIP = i;
  result.place = std::int64_t{i} * 1000000000 + 1;
  result.extend = result.oper = result.nettype = i;
  result.apn = i % 256;
  result.flable = i % 17;
  return result;
}

std::string randomName(std::mt19937& random, std::size_t longest) {
  std::string name(random() % (longest + 1), ' ');
  for (char& letter : name) letter = static_cast<char>('a' + random() % 26);
  return name;
}

void expectSame(const IPNameView& names, const IPHumanMessage& message) {
  EXPECT_EQ(message.m_country, names.country());
  EXPECT_EQ(message.m_province, names.province());
  EXPECT_EQ(message.m_city, names.city());
  EXPECT_EQ(message.m_district, names.district());
  EXPECT_EQ(message.m_extend, names.extend());
  EXPECT_EQ(message.m_oper, names.oper());
  EXPECT_EQ(message.m_nettype, names.nettype());
  EXPECT_EQ(message.m_apn, names.apn());
  EXPECT_EQ(message.m_flable, names.flable());
}

/// Parameter: the longest name.
class CopyNames : public testing::TestWithParam<std::size_t> {};

TEST_P(CopyNames, AMessageUsedAgainHoldsExactlyTheNamesOfTheLastAnswer) {
  std::mt19937 random(7);
  Maps maps;
  ravel::vIPProperty table;
  for (std::uint32_t i = 1; i <= kRanges; ++i) {
    table.push_back(range(i));
    const std::uint64_t district = static_cast<std::uint64_t>(table.back().place);
    const std::uint64_t ids[8] = {
        district / 1000000000, district / 1000000, district / 1000, district, i, i, i, i % 256};
    for (std::size_t k = 0; k < 8; ++k) {
      // Two of the tables have short names only, which are copied in another way.
      const std::size_t longest = k % 4 == 1 ? std::min<std::size_t>(GetParam(), 15) : GetParam();
      maps[k][ids[k]].content = randomName(random, longest);
    }
  }
  const tolvar::RangeIndex index = tolvar::RangeIndex::build(table);
  const tolvar::TupleNames names(index, std::make_shared<const tolvar::CodeNames>(maps));

  IPHumanMessage message;
  // What its strings have room for is the caller's business.
  message.m_city.reserve(20);
  message.m_oper.reserve(29);
  message.m_apn.reserve(300);
  for (int round = 0; round < 2000; ++round) {
    const std::uint32_t tuple = index.findTuple(1 + static_cast<std::uint32_t>(random() % kRanges));
    tolvar::copyNames(names, tuple, &message);
    expectSame(names.row(tuple), message);
    ASSERT_FALSE(HasFailure()) << "round " << round;
  }
  // The view itself shows what the code tables have.
  for (std::uint32_t i = 1; i <= kRanges; ++i) {
    ASSERT_EQ(names.row(index.findTuple(i)).oper(), maps[5][i].content);
    ASSERT_EQ(names.row(index.findTuple(i)).extend(), maps[4][i].content);
  }
}

INSTANTIATE_TEST_SUITE_P(Lengths, CopyNames, testing::Values(0, 3, 15, 16, 24, 31, 32, 60, 5000));

/// More different names than fit beside the index, some of them in nearly every length there is.
TEST(CopyNames, AMessageHoldsTheNamesOfALargeTable) {
  constexpr std::uint32_t kTuples = 30000;
  std::mt19937 random(11);
  Maps maps;
  ravel::vIPProperty table;
  for (std::uint32_t i = 1; i <= kTuples; ++i) {
    table.push_back(range(i));
    const std::uint64_t district = static_cast<std::uint64_t>(table.back().place);
    maps[1][district / 1000000].content = randomName(random, 15);
    maps[2][district / 1000].content = randomName(random, 31);
    maps[3][district].content = randomName(random, i % 1000 == 0 ? 60 : 31);
    table.back().oper = i % 200;
    maps[5][i % 200].content = "operator " + std::to_string(i % 200);
  }
  const tolvar::RangeIndex index = tolvar::RangeIndex::build(table);
  const tolvar::TupleNames names(index, std::make_shared<const tolvar::CodeNames>(maps));
  IPHumanMessage message;
  for (std::uint32_t i = 0; i < kTuples; ++i) {
    const std::uint32_t tuple = index.findTuple(1 + i * 7919 % kTuples);
    tolvar::copyNames(names, tuple, &message);
    expectSame(names.row(tuple), message);
    ASSERT_FALSE(HasFailure()) << "address " << 1 + i * 7919 % kTuples;
  }
}

TEST(CopyNames, AViewThatNobodyFilledHasNoNames) {
  const IPNameView view;
  EXPECT_EQ(view.country(), "");
  EXPECT_EQ(view.flable(), "");
}

}  // namespace
}  // namespace tolvar_test
