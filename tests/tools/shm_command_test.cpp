// `tolvar shm` as a user runs it, on images that this test lays, damages and removes.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/shm.h>
#include <unistd.h>

#include <nlohmann/json.hpp>

#include "platform/interprocess_lock.h"
#include "platform/shm_directory.h"
#include "tests/src/store_fixture.h"
#include "tests/support/range_records.h"
#include "tests/tools/run_tool.h"

namespace {

using namespace tolvar_test;
using nlohmann::json;
using testing::HasSubstr;
using testing::Not;

std::string listOf(const ShmKeys& keys) {
  return std::to_string(keys.data0()) + "," + std::to_string(keys.data1()) + "," +
         std::to_string(keys.size());
}

ToolRun shm(std::vector<std::string> arguments) {
  arguments.insert(arguments.begin(), "shm");
  return runTool(TOLVAR_TOOL, arguments);
}

ToolRun shm(const std::string& action, const ShmKeys& keys, std::vector<std::string> more = {}) {
  more.insert(more.begin(), {action, "--keys", listOf(keys)});
  return shm(more);
}

/// An image with the same table in both segments.
class ShmCommand : public testing::Test {
 protected:
  ShmCommand() { publishImage(keys, table); }

  const TestTable table = smallTable(1);
  ShmKeys keys;
};

/// The image in `ls --json` that has these keys; null when it is not listed.
json listed(const ShmKeys& keys) {
  const ToolRun run = shm({"ls", "--json"});
  EXPECT_EQ(run.exitStatus, 0) << run.err;
  const json list = json::parse(run.out);
  for (const json& image : list["images"])
    if (image["keys"] == json{keys.data0(), keys.data1(), keys.size()}) return image;
  return json();
}

TEST_F(ShmCommand, ListsAnImageWithKeysSizesAndStatuses) {
  const json image = listed(keys);
  ASSERT_FALSE(image.is_null());
  EXPECT_EQ(image["segments"][0]["bytes"], 73695648);
  EXPECT_EQ(image["segments"][0]["attached"], 0);
  EXPECT_EQ(image["segments"][0]["creator"], getpid());
  EXPECT_EQ(image["segments"][1]["ipStatus"], "ready");
  EXPECT_EQ(image["segments"][1]["codeStatus"], "ready");
  EXPECT_EQ(image["sizeRecord"]["bytes"], 136);
  EXPECT_EQ(image["sizeRecord"]["recordedBytes"], 73695648);

  const ToolRun run = shm({"ls"});
  EXPECT_EQ(run.exitStatus, 0);
  EXPECT_THAT(run.out, HasSubstr("image --keys " + listOf(keys) + "\n"));
}

TEST_F(ShmCommand, ListTellsWhoIsAttached) {
  const RawSegment attached(keys.data1());
  const json segment = listed(keys)["segments"][1];
  EXPECT_EQ(segment["attached"], 1);
  EXPECT_EQ(segment["processes"], json{getpid()});
  EXPECT_THAT(shm({"ls"}).out, HasSubstr("attached 1 (processes " + std::to_string(getpid())));
}

TEST_F(ShmCommand, ListPassesOverSegmentsThatAreNotOurs) {
  const ShmKeys foreign;
  RawSegment::create(foreign.data0(), 100000);
  RawSegment::create(foreign.data1(), 136);
  RawSegment(foreign.data0()).write64(40, 128);
  const ToolRun run = shm({"ls"});
  EXPECT_THAT(run.out, Not(HasSubstr(std::to_string(foreign.data0()))));
  EXPECT_THAT(run.out, Not(HasSubstr(std::to_string(foreign.data1()))));
}

TEST_F(ShmCommand, ShowTellsCountsSizesAndDigests) {
  const ToolRun run = shm("show", keys, {"--json"});
  ASSERT_EQ(run.exitStatus, 0) << run.err;
  const json image = json::parse(run.out);
  const std::string digest = digestOf(table.ranges);
  for (const json& segment : image["segments"]) {
    EXPECT_EQ(segment["state"], "ours");
    EXPECT_EQ(segment["ipStatus"], "ready");
    EXPECT_EQ(segment["digest"], digest);
    EXPECT_EQ(segment["faults"], 0);
    ASSERT_EQ(segment["tables"].size(), 9u);
    EXPECT_EQ(segment["tables"][0]["nodes"], table.ranges.size());
    EXPECT_EQ(segment["tables"][0]["bytes"], 67108896);
    EXPECT_EQ(segment["tables"][8]["table"], "access points");
    EXPECT_EQ(segment["tables"][8]["nodes"], table.codes[7].size());
  }
  EXPECT_FALSE(image["lock"]["held"]);
  EXPECT_EQ(image["lock"]["lastProcess"], getpid());
  EXPECT_TRUE(image["lastPublicationNotAfter"].is_string());

  const ToolRun text = shm("show", keys);
  EXPECT_EQ(text.exitStatus, 0);
  EXPECT_THAT(text.out, HasSubstr(digest));
  EXPECT_THAT(text.out, HasSubstr("last publication: not after 20"));
}

TEST_F(ShmCommand, ShowTakesHexadecimalKeys) {
  std::string hex;
  for (const key_t key : {keys.data0(), keys.data1(), keys.size()}) {
    char text[16];
    std::snprintf(text, sizeof text, "%s0x%x", hex.empty() ? "" : ",", key);
    hex += text;
  }
  EXPECT_EQ(shm({"show", "--keys", hex}).exitStatus, 0);
}

TEST_F(ShmCommand, ListShowAndVerifyWriteNothing) {
  std::vector<std::string> before;
  for (const key_t key : {keys.data0(), keys.data1(), keys.size()})
    before.push_back(RawSegment(key).allBytes());
  // Damage invites repair.
  RawSegment(keys.data0()).write64(24 + 16, 0);
  before[0].replace(24 + 16, 8, std::string(8, '\0'));
  shm({"ls"});
  shm("show", keys);
  shm("verify", keys);
  EXPECT_TRUE(RawSegment(keys.data0()).allBytes() == before[0]);
  EXPECT_TRUE(RawSegment(keys.data1()).allBytes() == before[1]);
  EXPECT_TRUE(RawSegment(keys.size()).allBytes() == before[2]);
}

TEST_F(ShmCommand, LookingAtAnImageThatIsNotThereMakesNothing) {
  keys.removeSegments();
  for (const char* action : {"show", "verify", "rm"}) {
    const ToolRun run = shm(action, keys);
    EXPECT_EQ(run.exitStatus, 2) << action;
    EXPECT_THAT(run.err, HasSubstr(listOf(keys)));
    EXPECT_FALSE(RawSegment::exists(keys.data0()));
    EXPECT_FALSE(RawSegment::exists(keys.size()));
    EXPECT_EQ(run.out, "");
  }
}

TEST_F(ShmCommand, VerifyFindsAWholeImageWhole) {
  const ToolRun run = shm("verify", keys);
  EXPECT_EQ(run.exitStatus, 0) << run.out;
  EXPECT_THAT(run.out, HasSubstr("the image is whole"));
  EXPECT_TRUE(json::parse(shm("verify", keys, {"--json"}).out)["whole"]);
}

TEST_F(ShmCommand, VerifySaysWhichNodeOfWhichTableIsDamagedAndWhere) {
  const RawRegion cities = RawSegment(keys.data1()).regions()[3];
  const std::size_t at = cities.node(2);
  RawSegment(keys.data1()).write(at + 8, "\x0E");
  const ToolRun run = shm("verify", keys);
  EXPECT_EQ(run.exitStatus, 1);
  EXPECT_THAT(run.out, HasSubstr("fault: segment 1 (key " + std::to_string(keys.data1()) +
                                 "), cities, node 2, offset " + std::to_string(at + 8) + ": "));
  EXPECT_THAT(run.out, HasSubstr("the image is damaged"));

  const json report = json::parse(shm("verify", keys, {"--json"}).out);
  EXPECT_FALSE(report["whole"]);
  EXPECT_EQ(report["segments"][0]["faultCount"], 0);
  ASSERT_EQ(report["segments"][1]["faultCount"], 1);
  const json fault = report["segments"][1]["faults"][0];
  EXPECT_EQ(fault["table"], "cities");
  EXPECT_EQ(fault["node"], 2);
  EXPECT_EQ(fault["offset"], at + 8);
}

TEST_F(ShmCommand, VerifyNamesDamagedWordsOfHeads) {
  RawSegment(keys.data0()).write32(0, 9);
  RawSegment(keys.data0()).write64(24 + 24, UINT64_MAX);
  const ToolRun run = shm("verify", keys);
  EXPECT_EQ(run.exitStatus, 1);
  EXPECT_THAT(run.out, HasSubstr("head, offset 0: the ranges' status is 9"));
  EXPECT_THAT(run.out, HasSubstr("ranges, offset 48: the vector counts 18446744073709551615"));
}

TEST_F(ShmCommand, VerifyTellsAMissingSegment) {
  {
    StoreClient remover;
    ASSERT_TRUE(remover.access.shm(0).attach(keys.data1()));
    remover.access.shm(0).del();
  }
  const ToolRun run = shm("verify", keys);
  EXPECT_EQ(run.exitStatus, 1);
  EXPECT_THAT(run.out, HasSubstr("segment 1, key " + std::to_string(keys.data1())));
  EXPECT_THAT(run.out, HasSubstr("there is no segment behind this key"));
}

TEST_F(ShmCommand, ASegmentFullOfGarbageIsReportedNotFollowed) {
  std::mt19937_64 random(3);
  {
    RawSegment segment(keys.data0());
    std::string garbage(1 << 16, '\0');
    for (char& byte : garbage) byte = static_cast<char>(random());
    for (std::size_t at = 0; at < segment.size(); at += garbage.size())
      segment.write(at, garbage.substr(0, std::min(garbage.size(), segment.size() - at)));
  }
  const ToolRun run = shm("verify", keys);
  EXPECT_EQ(run.exitStatus, 1);
  EXPECT_THAT(run.out, HasSubstr("impossible block size"));
  EXPECT_EQ(shm("show", keys).exitStatus, 0);
  EXPECT_EQ(shm("rm", keys).exitStatus, 0) << "the size record shows whose it is";
}

TEST_F(ShmCommand, WhatAWriterIsInTheMiddleOfIsNoDamage) {
  {
    RawSegment segment(keys.data1());
    segment.write32(0, 2);
    segment.write64(24 + 24, 6);  // one node is counted, but not there yet
  }
  EXPECT_EQ(shm("verify", keys).exitStatus, 1) << "nobody is at work";
  qel::InterprocessLock publisher;
  ASSERT_TRUE(publisher.acquire(keys.size(), 0));
  const ToolRun run = shm("verify", keys);
  EXPECT_EQ(run.exitStatus, 0) << run.out;
  EXPECT_THAT(run.out, HasSubstr("it is being written"));
  // A segment that says ready has no such excuse.
  RawSegment(keys.data1()).write32(0, 1);
  EXPECT_EQ(shm("verify", keys).exitStatus, 1);
}

TEST_F(ShmCommand, VerifyWarnsWhenBothSegmentsAreReadyWithDifferentRanges) {
  StoreClient writer;
  writer.open(keys);
  writer.fill(1, smallTable(2));
  const ToolRun run = shm("verify", keys);
  EXPECT_EQ(run.exitStatus, 0);
  EXPECT_THAT(run.out, HasSubstr("different ranges"));
}

TEST_F(ShmCommand, RemovalTakesSegmentsAndLockAway) {
  const ToolRun run = shm("rm", keys);
  EXPECT_EQ(run.exitStatus, 0) << run.err;
  for (const key_t key : {keys.data0(), keys.data1(), keys.size()}) {
    EXPECT_FALSE(RawSegment::exists(key));
    EXPECT_THAT(run.out, HasSubstr(std::to_string(key)));
  }
  EXPECT_FALSE(qel::semaphoreBehind(keys.size()));
}

TEST_F(ShmCommand, RemovalIsRefusedWhileSomebodyIsAttachedUnlessForced) {
  const RawSegment attached(keys.data0());
  ToolRun run = shm("rm", keys);
  EXPECT_EQ(run.exitStatus, 1);
  EXPECT_THAT(run.err, HasSubstr("attached 1 times, by " + std::to_string(getpid())));
  EXPECT_THAT(run.err, HasSubstr("--force"));
  EXPECT_TRUE(RawSegment::exists(keys.data0()));
  EXPECT_TRUE(RawSegment::exists(keys.data1()));

  run = shm("rm", keys, {"--force"});
  EXPECT_EQ(run.exitStatus, 0) << run.err;
  EXPECT_FALSE(RawSegment::exists(keys.data0()));
  EXPECT_EQ(attached.ipStatus(), 1u) << "whoever is attached keeps what it maps";
}

TEST_F(ShmCommand, RemovalIsRefusedWhileSomebodyPublishes) {
  qel::InterprocessLock publisher;
  ASSERT_TRUE(publisher.acquire(keys.size(), 0));
  const ToolRun run = shm("rm", keys);
  EXPECT_EQ(run.exitStatus, 1);
  EXPECT_THAT(run.err, HasSubstr("holds the image's lock"));
  EXPECT_TRUE(RawSegment::exists(keys.data0()));
  EXPECT_EQ(shm("rm", keys, {"--force"}).exitStatus, 0);
  EXPECT_TRUE(qel::semaphoreBehind(keys.size())) << "its holder still relies on it";
}

TEST_F(ShmCommand, RemovalRefusesWhatIsNotOursEvenWhenForced) {
  const ShmKeys foreign;
  RawSegment::create(foreign.data0(), 4096);
  const std::string mixed = std::to_string(keys.data0()) + "," + std::to_string(foreign.data0()) +
                            "," + std::to_string(keys.size());
  const ToolRun run = shm({"rm", "--force", "--keys", mixed});
  EXPECT_EQ(run.exitStatus, 1);
  EXPECT_THAT(run.err, HasSubstr("key " + std::to_string(foreign.data0())));
  EXPECT_THAT(run.err, HasSubstr("is not ours"));
  EXPECT_TRUE(RawSegment::exists(foreign.data0()));
  EXPECT_TRUE(RawSegment::exists(keys.data0())) << "nothing else is removed either";
}

TEST_F(ShmCommand, RemovalOfOnlyForeignSegmentsMakesNoLock) {
  const ShmKeys foreign;
  RawSegment::create(foreign.size(), 136);
  EXPECT_EQ(shm("rm", foreign, {"--force"}).exitStatus, 1);
  EXPECT_TRUE(RawSegment::exists(foreign.size()));
  EXPECT_FALSE(qel::semaphoreBehind(foreign.size()));
}

TEST(ShmFlags, WhatIsMissingOrWrongGivesStatusTwo) {
  for (const std::vector<std::string>& arguments : {std::vector<std::string>{},
                                                    {"show"},
                                                    {"verify"},
                                                    {"rm"},
                                                    {"show", "--keys", "1,2"},
                                                    {"show", "--keys", "1,1,2"},
                                                    {"rm", "--keys", "0,1,2"},
                                                    {"rm", "--keys", "1,2,3", "--json"},
                                                    {"bury"}})
    EXPECT_EQ(shm(arguments).exitStatus, 2) << testing::PrintToString(arguments);
}

}  // namespace
