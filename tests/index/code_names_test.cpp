#include "src/index/code_names.h"

#include <gtest/gtest.h>

#include <random>

namespace tolvar_test {
namespace {

using tolvar::CodeNames;
using Maps = std::unordered_map<std::uint64_t, ravel::CodeInfo>[8];

ravel::CodeInfo code(const std::string& name) {
  ravel::CodeInfo result;
  result.content = name;
  return result;
}

TEST(CodeNames, FindsNamesByTypeAndId) {
  Maps maps;
  maps[0][86] = code("China");
  maps[7][86] = code("apn");
  maps[3][86110105001] = code("district");
  const CodeNames names(maps);
  EXPECT_EQ(names.find(0, 86), "China");
  EXPECT_EQ(names.find(7, 86), "apn");
  EXPECT_EQ(names.find(3, 86110105001), "district");
  EXPECT_EQ(names.find(3, 86110105001 & 0xFFFFFFFF), "");
  EXPECT_EQ(names.find(1, 86), "");
}

TEST(CodeNames, UnknownTypesAndIdsHaveNoName) {
  Maps maps;
  maps[0][0] = code("zero");
  maps[0][UINT64_MAX] = code("last");
  maps[1][5] = code("");
  const CodeNames names(maps);
  EXPECT_EQ(names.find(0, 0), "zero");
  EXPECT_EQ(names.find(0, UINT64_MAX), "last");
  EXPECT_EQ(names.find(1, 5), "");
  for (const int type : {-1, 8, INT_MIN, INT_MAX}) EXPECT_EQ(names.find(type, 0), "");
  for (int type = 0; type < 8; ++type) EXPECT_EQ(CodeNames().find(type, 0), "");
}

TEST(CodeNames, TheKeyOfTheMapCountsNotTheRecord) {
  Maps maps;
  maps[2][1] = code("one");
  maps[2][1].ID = 2;
  const CodeNames names(maps);
  EXPECT_EQ(names.find(2, 1), "one");
  EXPECT_EQ(names.find(2, 2), "");
}

TEST(CodeNames, AgreesWithTheMaps) {
  std::mt19937_64 random(1);
  Maps maps;
  for (int type = 0; type < 8; ++type) {
    const int shift = static_cast<int>(random() % 60);
    for (int i = 0; i < 3000; ++i) {
      // Ids in steps of a power of two, where a weak hash would pile them up.
      const std::uint64_t id = (random() % 20000) << shift;
      maps[type][id] = code(std::string(random() % 40, static_cast<char>('a' + random() % 26)));
    }
  }
  const CodeNames names(maps);
  for (int type = 0; type < 8; ++type) {
    for (const auto& [id, entry] : maps[type]) {
      ASSERT_EQ(names.find(type, id), entry.content);
      const auto next = maps[type].find(id + 1);
      ASSERT_EQ(names.find(type, id + 1), next == maps[type].end() ? "" : next->second.content);
    }
  }
}

TEST(CodeNames, OfAListTheLastEntryWithAnIdCounts) {
  const auto entry = [](std::int64_t id, const std::string& name) {
    ravel::CodeInfo result = code(name);
    result.ID = id;
    return result;
  };
  std::vector<ravel::CodeInfo> lists[8];
  lists[0] = {entry(1, "one"), entry(5, "five"), entry(7, "")};
  lists[1] = {entry(5, "old"), entry(5, "new"), entry(6, "gone"), entry(6, "")};
  lists[2] = {entry(9, "first"), entry(3, "three"), entry(9, "last"), entry(-1, "below")};
  const CodeNames names(lists);
  EXPECT_EQ(names.find(0, 1), "one");
  EXPECT_EQ(names.find(0, 5), "five");
  EXPECT_EQ(names.find(0, 7), "");
  EXPECT_EQ(names.find(1, 5), "new");
  EXPECT_EQ(names.find(1, 6), "");
  EXPECT_EQ(names.find(2, 9), "last");
  EXPECT_EQ(names.find(2, 3), "three");
  EXPECT_EQ(names.find(2, UINT64_MAX), "below");
  EXPECT_EQ(names.find(3, 1), "");
}

TEST(CodeNames, LabelsAreFifteen) {
  const char* const labels[] = {
      "",           "FROM_QK", "FROM_RTL",    "FROM_RTL_HMV", "FROM_PLEX1",
      "FROM_PLEX2", "FROM_JN", "FROM_JN_HVM", "FROM_ORB",     "FROM_YAT",
      "FROM_KV",    "RTL",     "JN",          "TZ",           "KV",
      "PLEX",       ""};
  const CodeNames names;
  for (std::uint32_t id = 0; id < std::size(labels); ++id) {
    EXPECT_EQ(tolvar::labelName(id), labels[id]);
    EXPECT_EQ(names.view(names.labelPlace(id)), labels[id]);
  }
  EXPECT_EQ(tolvar::labelName(UINT32_MAX), "");
}

}  // namespace
}  // namespace tolvar_test
