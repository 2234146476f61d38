#include "src/index/message_rows.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <string_view>
#include <unordered_map>

#include "src/index/name_numbers.h"

namespace tolvar_test {
namespace {

using tolvar::CodeNames;
using tolvar::MessageRows;
using tolvar::NameNumbers;
using tolvar::RangeIndex;
using tolvar::TuplePlaces;

constexpr std::size_t kProvince = 1;
constexpr std::size_t kDistrict = 3;

/// A table of so many tuples, each with a province and a district of its own.
class Table {
 public:
  using NameOf = std::function<std::string(std::uint32_t)>;

  Table(std::uint32_t tuples, const NameOf& province, const NameOf& district) {
    std::unordered_map<std::uint64_t, ravel::CodeInfo> maps[CodeNames::kTypes];
    ravel::vIPProperty ranges(tuples);
    for (std::uint32_t i = 0; i < tuples; ++i) {
      ranges[i].startIP = ranges[i].endIP = i;
      ranges[i].place = (std::int64_t{i} + 1) * 1000000;
      ranges[i].flable = 1;
      maps[kProvince][i + 1].content = province(i);
      maps[kDistrict][(std::uint64_t{i} + 1) * 1000000].content = district(i);
    }
    _codes = std::make_unique<CodeNames>(maps);
    _index = std::make_unique<RangeIndex>(RangeIndex::build(ranges));
    _places = std::make_unique<TuplePlaces>(*_index, *_codes);
    _rows = std::make_unique<MessageRows>(*_codes, *_places);
  }

  const MessageRows& rows() const { return *_rows; }
  MessageRows::Row row(std::uint32_t ip) const { return _rows->row(_index->findTuple(ip)); }

  template <std::size_t kName>
  std::string nameAt(std::uint32_t ip) const {
    const MessageRows::Row row = this->row(ip);
    const MessageRows::Name name = (_rows->longNames() & 1u << kName) != 0
                                       ? MessageRows::name<kName, true>(row)
                                       : MessageRows::name<kName, false>(row);
    return std::string(name.text, name.length);
  }

  /// Whether the text of a kind of names lies in the rows.
  bool inRows(std::size_t kind) const { return (row(0).kindsInRows & 1u << kind) != 0; }

 private:
  std::unique_ptr<CodeNames> _codes;
  std::unique_ptr<RangeIndex> _index;
  std::unique_ptr<TuplePlaces> _places;
  std::unique_ptr<MessageRows> _rows;
};

std::string numbered(const char* before, std::uint32_t i) { return before + std::to_string(i); }

TEST(MessageRows, FewNamesAreToldByNumber) {
  constexpr std::uint32_t kTuples = 3000;
  const Table table(
      kTuples, [](std::uint32_t i) { return numbered("p", i % 300); },
      [](std::uint32_t i) { return numbered("a longer district ", i); });
  EXPECT_FALSE(table.inRows(kProvince));
  EXPECT_FALSE(table.inRows(kDistrict));
  EXPECT_EQ(table.rows().longNames(), 1u << kDistrict);
  for (std::uint32_t i = 0; i < kTuples; ++i) {
    ASSERT_TRUE(MessageRows::complete(table.row(i)));
    ASSERT_EQ(table.nameAt<kProvince>(i), numbered("p", i % 300));
    ASSERT_EQ(table.nameAt<kDistrict>(i), numbered("a longer district ", i));
    ASSERT_EQ(table.nameAt<CodeNames::kTypes>(i), "FROM_QK");
  }
}

TEST(MessageRows, ManyNamesAreInTheRows) {
  constexpr std::uint32_t kTuples = 20000;
  const Table table(
      kTuples, [](std::uint32_t i) { return numbered("p", i); },
      [](std::uint32_t i) { return numbered("a longer district ", i); });
  EXPECT_TRUE(table.inRows(kProvince));
  EXPECT_TRUE(table.inRows(kDistrict));
  EXPECT_FALSE(table.inRows(CodeNames::kTypes));
  for (std::uint32_t i = 0; i < kTuples; ++i) {
    ASSERT_TRUE(MessageRows::complete(table.row(i)));
    ASSERT_EQ(table.nameAt<kProvince>(i), numbered("p", i));
    ASSERT_EQ(table.nameAt<kDistrict>(i), numbered("a longer district ", i));
    ASSERT_EQ(table.nameAt<CodeNames::kTypes>(i), "FROM_QK");
  }
}

TEST(MessageRows, TheKindOfFewerNamesGetsTheRoomOfTheSlots) {
  const Table table(
      12000, [](std::uint32_t i) { return numbered("p", i % 9000); },
      [](std::uint32_t i) { return numbered("d", i); });
  EXPECT_EQ(table.nameAt<kProvince>(8999), "p8999");
  EXPECT_EQ(table.nameAt<kDistrict>(11999), "d11999");
  EXPECT_NE(table.inRows(kProvince), table.inRows(kDistrict));
}

TEST(MessageRows, ANameBeyondTheLongestMakesItsRowIncompleteAndNoOther) {
  const auto name = [](std::uint32_t i) { return std::string(i, static_cast<char>('a' + i % 26)); };
  for (const std::uint32_t tuples : {100u, 20000u}) {
    const Table table(
        tuples, [&](std::uint32_t i) { return name(i % 100); },
        [](std::uint32_t i) { return numbered("district ", i); });
    for (std::uint32_t i = 0; i < tuples; ++i) {
      const bool fits = i % 100 <= MessageRows::kLongName;
      ASSERT_EQ(MessageRows::complete(table.row(i)), fits) << i;
      if (!fits) continue;
      ASSERT_EQ(table.nameAt<kProvince>(i), name(i % 100));
      ASSERT_EQ(table.nameAt<kDistrict>(i), numbered("district ", i));
    }
  }
}

TEST(MessageRows, NoRangeHasNoNames) {
  const Table table(
      10, [](std::uint32_t) { return "province"; }, [](std::uint32_t) { return "district"; });
  const MessageRows::Row none = table.rows().row(0);
  ASSERT_TRUE(MessageRows::complete(none));
  EXPECT_EQ((MessageRows::name<kProvince, false>(none).length), 0u);
  EXPECT_EQ((MessageRows::name<CodeNames::kTypes, false>(none).length), 0u);
}

/// Names as they lie in a text, one behind the other.
CodeNames::Place placeOf(std::uint32_t i) { return {100 + 4 * i, 4}; }

TEST(NameNumbers, CountFromOneAndTellAgain) {
  NameNumbers numbers({100, 4 * 8}, 8);
  for (const std::uint32_t i : {5u, 2u, 5u, 7u, 2u}) numbers.add(placeOf(i));
  numbers.add({});
  ASSERT_TRUE(numbers.few());
  ASSERT_EQ(numbers.names().size(), 3u);
  EXPECT_EQ(numbers.of(placeOf(5)), 1u);
  EXPECT_EQ(numbers.of(placeOf(2)), 2u);
  EXPECT_EQ(numbers.of(placeOf(7)), 3u);
  EXPECT_EQ(numbers.of({}), 0u);
  EXPECT_EQ(numbers.names()[2].offset, placeOf(7).offset);
}

TEST(NameNumbers, AreGivenToNoNameWhereTheyAreNotEnoughForAll) {
  NameNumbers names({100, 4 * 9}, 8);
  for (std::uint32_t i = 0; i < 8; ++i) names.add(placeOf(i));
  EXPECT_TRUE(names.few());
  names.add(placeOf(8));
  EXPECT_FALSE(names.few());
  names.add(placeOf(3));
  EXPECT_FALSE(names.few());
  EXPECT_FALSE(NameNumbers({0, 8 * 16 + 1}, 8).few()) << "so much text needs no look at the names";
}

}  // namespace
}  // namespace tolvar_test
