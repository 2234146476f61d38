#include <gtest/gtest.h>

#include <stdexcept>

#include "tests/src/update/scene.h"

namespace tolvar_test {
namespace {

/// A client whose code tables are about to be fetched.
struct CodeScene : StepScene {
  std::vector<ravel::CodeInfo> answer;

  explicit CodeScene(std::size_t codes = 8) : StepScene(8, codes) {
    service->codes = [this](std::vector<ravel::CodeInfo>& out) { out = answer; };
  }
  bool refreshCodes() {
    access.isCheckingCode() = true;
    return access.checkCodeChangeRequest();
  }
};

TEST(CodeSync, WithoutARequestNothingIsAskedFor) {
  CodeScene scene;
  EXPECT_FALSE(scene.access.checkCodeChangeRequest());
  EXPECT_TRUE(scene.service->calls().empty());
}

TEST(CodeSync, EveryTypeGoesIntoItsOwnTableOfSegment1AndThenOf0) {
  CodeScene scene;
  for (int type = 1; type <= 8; ++type)
    scene.answer.push_back(code(type, 100 + type, "name " + std::to_string(type)));
  EXPECT_TRUE(scene.refreshCodes());
  EXPECT_FALSE(scene.access.isCheckingCode());
  EXPECT_EQ(scene.service->calls(), std::vector<std::string>{"totalDownloadCode"});
  const SegmentView segment1(scene.keys.data1());
  for (int table = 0; table < 8; ++table) {
    const auto stored = segment1.codes(table);
    ASSERT_EQ(stored.size(), 1u);
    EXPECT_EQ(stored[0].type, table + 1);
    EXPECT_EQ(stored[0].id, 101 + table);
    EXPECT_EQ(stored[0].name, "name " + std::to_string(table + 1));
    EXPECT_EQ(scene.access.codeVectorInUse(table), &scene.access.codeVector(table, 1));
    EXPECT_EQ(scene.access.GetCodeInfoById(table, 101 + static_cast<std::uint64_t>(table)),
              "name " + std::to_string(table + 1));
  }
  EXPECT_EQ(SegmentView(scene.keys.data0()).content(), segment1.content());
  EXPECT_EQ(scene.client.status().codeEntries, 8u);
  EXPECT_EQ(scene.client.status().codePublications, 1u);
  scene.output.take();
  const auto begin = textsStarting(scene.output.out, "begin check code change request. this=0x");
  ASSERT_EQ(begin.size(), 1u);
  EXPECT_NE(begin[0].find(", m_isCheckingCode=1"), std::string::npos);
}

TEST(CodeSync, EntriesLieInTheirOrder) {
  CodeScene scene;
  scene.answer = {code(1, 9, "b"), code(1, 2, "z"), code(1, 9, "a"), code(1, -1, "y")};
  scene.refreshCodes();
  const auto stored = SegmentView(scene.keys.data1()).codes(0);
  ASSERT_EQ(stored.size(), 4u);
  EXPECT_EQ(stored[0].name, "y");
  EXPECT_EQ(stored[1].name, "z");
  EXPECT_EQ(stored[2].name, "a");
  EXPECT_EQ(stored[3].name, "b");
  EXPECT_EQ(scene.client.getCountryByID(9), "b") << "a later entry replaces an earlier one";
}

TEST(CodeSync, UnknownTypesAreLoggedStoredNowhereAndDoNotStopTheOthers) {
  CodeScene scene;
  scene.answer = {code(9, 1, "nine"), code(0, 1, "zero"), code(-3, 1, "below"), code(2, 5, "here")};
  EXPECT_TRUE(scene.refreshCodes());
  scene.output.take();
  EXPECT_EQ(textsStarting(scene.output.err, "invalid code type."),
            (std::vector<std::string>{"invalid code type. code_type = -3",
                                      "invalid code type. code_type = 0",
                                      "invalid code type. code_type = 9"}));
  const SegmentView segment(scene.keys.data1());
  std::uint64_t nodes = 0;
  for (int region = 1; region <= 8; ++region) nodes += segment.nodes(region);
  EXPECT_EQ(nodes, 1u);
  EXPECT_EQ(scene.client.getProvinceByID(5), "here");
  EXPECT_EQ(scene.client.status().codeEntries, 1u);
}

TEST(CodeSync, NoEntriesAtAllEmptyAndPublishTheTables) {
  CodeScene scene;
  scene.answer = {code(1, 5, "here"), code(8, 6, "there")};
  scene.refreshCodes();
  scene.answer.clear();
  EXPECT_TRUE(scene.refreshCodes());
  for (int table = 0; table < 8; ++table) {
    EXPECT_EQ(scene.access.codeVectorInUse(table), &scene.access.codeVector(table, 0));
    EXPECT_EQ(SegmentView(scene.keys.data0()).nodes(table + 1), 0u);
    EXPECT_TRUE(scene.access.codeQueryMap(table).empty());
  }
  EXPECT_EQ(SegmentView(scene.keys.data0()).codeStatus(), 1u);
  EXPECT_EQ(scene.client.getCountryByID(5), "");
  EXPECT_FALSE(scene.access.isCheckingCode());
}

TEST(CodeSync, FailedDownloadKeepsTheRequestAndThePublishedTables) {
  CodeScene scene;
  scene.answer = {code(1, 5, "here")};
  scene.refreshCodes();
  const std::string before = SegmentView(scene.keys.data0()).content();
  scene.output.take();
  scene.service->codes = [](auto&) { throw qel::ZU_Exception("line cut"); };
  EXPECT_TRUE(scene.refreshCodes());
  EXPECT_TRUE(scene.access.isCheckingCode());
  EXPECT_EQ(scene.client.status().codePublications, 1u);
  scene.service->codes = [](auto&) { throw std::runtime_error("odd"); };
  EXPECT_TRUE(scene.refreshCodes());
  scene.service->codes = [](auto&) { throw 1; };
  EXPECT_TRUE(scene.refreshCodes());
  EXPECT_TRUE(scene.access.isCheckingCode());
  EXPECT_EQ(SegmentView(scene.keys.data0()).content(), before);
  EXPECT_EQ(SegmentView(scene.keys.data0()).codeStatus(), 1u);
  EXPECT_EQ(scene.client.getCountryByID(5), "here");
  scene.output.take();
  ASSERT_EQ(scene.output.err.size(), 3u);
  EXPECT_EQ(scene.output.err[0].text, "catch qel exception: line cut");
  EXPECT_EQ(scene.output.err[1].text, "catch std exception:odd") << "one blank";
  EXPECT_EQ(scene.output.err[2].text, "UNKOWN EX:");
}

TEST(CodeSync, FirstOneSetsBit2) {
  CodeScene scene;
  scene.refreshCodes();
  EXPECT_EQ(scene.access.hasInitialized(), 2);
  scene.access.totalWriteData2Shm();
  EXPECT_EQ(scene.access.hasInitialized(), 3);
}

TEST(CodeSync, EntryAboveTheRoomOfANodeIsSkippedWithItsLineAndTheRestIsPublished) {
  CodeScene scene;
  // Type and id take two bytes each, the text its length and two more.
  const std::string fits(114, 'f');
  const std::string tooLong(115, 'l');
  const std::string farTooLong(400, 'x');
  scene.answer = {code(3, 1, fits), code(3, 2, tooLong), code(3, 3, farTooLong),
                  code(3, 4, "short")};
  EXPECT_TRUE(scene.refreshCodes());
  scene.output.take();
  ASSERT_EQ(scene.output.err.size(), 2u);
  EXPECT_EQ(scene.output.err[0].text,
            "checkCodeChangeResponse catch exception. the encoding has 121 bytes, a node holds "
            "120, code_type = 3, code_id = 2, content = " +
                tooLong);
  EXPECT_EQ(scene.output.err[1].text,
            "checkCodeChangeResponse catch exception. the encoding has 409 bytes, a node holds "
            "120, code_type = 3, code_id = 3, content = " +
                std::string(256, 'x') + "...");
  const auto stored = SegmentView(scene.keys.data1()).codes(2);
  ASSERT_EQ(stored.size(), 2u);
  EXPECT_EQ(stored[0].name, fits);
  EXPECT_EQ(stored[1].name, "short");
  EXPECT_EQ(scene.client.getCityByID(3), farTooLong) << "this process knows the name all the same";
}

TEST(CodeSync, TablesGrowWithTheirEntries) {
  CodeScene scene(2);
  for (int type = 1; type <= 8; ++type)
    for (int id = 1; id <= 10 * type; ++id)
      scene.answer.push_back(code(type, id, std::to_string(type) + "/" + std::to_string(id)));
  EXPECT_TRUE(scene.refreshCodes());
  EXPECT_FALSE(scene.access.isCheckingCode());
  const SegmentView segment0(scene.keys.data0()), segment1(scene.keys.data1());
  EXPECT_EQ(segment0.content(), segment1.content());
  for (int table = 0; table < 8; ++table) {
    const auto stored = segment0.codes(table);
    ASSERT_EQ(stored.size(), 10u * static_cast<unsigned>(table + 1));
    EXPECT_EQ(stored.back().name,
              std::to_string(table + 1) + "/" + std::to_string(10 * (table + 1)));
  }
}

}  // namespace
}  // namespace tolvar_test
