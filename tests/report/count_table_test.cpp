#include "report/count_table.h"

#include <gtest/gtest.h>

#include <map>
#include <random>
#include <string>
#include <utility>

namespace {

using ravel::ReportType;
using tolvar::CountTable;
using Model = std::map<std::pair<int, std::string>, std::uint64_t>;

void expectSame(const CountTable& table, const Model& model) {
  const auto counts = table.sorted();
  ASSERT_EQ(counts.size(), model.size());
  EXPECT_EQ(table.size(), model.size());
  auto expected = model.begin();
  for (const auto& count : counts) {
    EXPECT_EQ(count.info.type, expected->first.first);
    EXPECT_EQ(count.info.name, expected->first.second);
    EXPECT_EQ(count.count, expected->second);
    ++expected;
  }
}

TEST(CountTable, AgreesWithAMapOnRandomNames) {
  std::mt19937 random(7);
  CountTable table;
  Model model;
  for (int i = 0; i < 50000; ++i) {
    const auto type = static_cast<ReportType>(random() % 4);
    // Names of all lengths around the eight-byte steps, zero bytes included.
    std::string name(random() % 20, '\0');
    for (char& c : name) c = static_cast<char>(random() % 2);
    const std::uint64_t hits = random() % 5;
    model[{type, name}] += hits;
    if (!table.add(type, name, hits)) table.insert(type, name, hits);
  }
  expectSame(table, model);
}

TEST(CountTable, AddTellsWhetherTheNameIsThere) {
  CountTable table;
  EXPECT_FALSE(table.add(ravel::ECity, "Turku", 1));
  table.insert(ravel::ECity, "Turku", 1);
  EXPECT_TRUE(table.add(ravel::ECity, "Turku", 2));
  EXPECT_FALSE(table.add(ravel::EProvince, "Turku", 1)) << "the same name of another type";
  EXPECT_FALSE(table.add(ravel::ECity, "", 1));
  expectSame(table, {{{ravel::ECity, "Turku"}, 3}});
}

TEST(CountTable, DrainGivesEverythingOnceAndEmptiesTheTable) {
  CountTable table;
  Model model;
  for (int i = 0; i < 5000; ++i) {
    table.insert(ravel::ECity, std::to_string(i), i);
    model[{ravel::ECity, std::to_string(i)}] = i;
  }
  Model drained;
  table.drain([&drained](ReportType type, const std::string& name, std::uint64_t count) {
    EXPECT_TRUE(drained.insert({{type, name}, count}).second);
  });
  EXPECT_EQ(drained, model);
  expectSame(table, {});
  EXPECT_FALSE(table.add(ravel::ECity, "7", 1));
  table.insert(ravel::ECity, "7", 1);
  expectSame(table, {{{ravel::ECity, "7"}, 1}});
}

}  // namespace
