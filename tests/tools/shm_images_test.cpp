// How segments found on a host are put together to images, and how keys are read.

#include "tools/tolvar/shm_images.h"

#include <gtest/gtest.h>

#include <CLI/CLI.hpp>

#include "tools/tolvar/key_list.h"
#include "tools/tolvar/shm_report.h"
#include "tools/tolvar/shm_values.h"

namespace {

using namespace tolvar::tools;

FoundSegment segment(FoundSegment::Kind kind, key_t key, pid_t creator, std::time_t made) {
  FoundSegment found;
  found.kind = kind;
  found.record.key = key;
  found.record.creator = creator;
  found.record.changed = made;
  return found;
}

FoundSegment data(key_t key, pid_t creator = 1, std::time_t made = 1000) {
  return segment(FoundSegment::Kind::Data, key, creator, made);
}

FoundSegment sizes(key_t key, pid_t creator = 1, std::time_t made = 1000) {
  return segment(FoundSegment::Kind::SizeRecord, key, creator, made);
}

/// Keys of complete images, and the number of incomplete ones.
std::vector<std::string> complete(const std::vector<FoundSegment>& segments,
                                  std::size_t* others = nullptr) {
  std::vector<std::string> keys;
  std::size_t rest = 0;
  for (const FoundImage& image : groupSegments(segments)) {
    const auto found = keysOf(image);
    if (found) keys.push_back(formatKeys(*found));
    if (!found) ++rest;
  }
  if (others != nullptr) *others = rest;
  return keys;
}

using Keys = std::vector<std::string>;

TEST(GroupSegments, NothingGivesNothing) { EXPECT_TRUE(groupSegments({}).empty()); }

TEST(GroupSegments, NeighbouringKeysOfOneMakerAreSeparateImages) {
  EXPECT_EQ(complete({sizes(3), sizes(6), data(1), data(2), data(4), data(5)}),
            (Keys{"1,2,3", "4,5,6"}));
}

TEST(GroupSegments, WhoMadeThemWhenCountsMoreThanKeys) {
  EXPECT_EQ(
      complete({sizes(90, 7), sizes(95, 8), data(1, 7), data(50, 7), data(2, 8), data(60, 8)}),
      (Keys{"1,50,90", "2,60,95"}));
}

TEST(GroupSegments, ASegmentThatAnotherProcessGrewGoesByItsKey) {
  EXPECT_EQ(complete({sizes(3, 7), data(1, 7), data(2, 99, 5000)}), (Keys{"1,2,3"}));
}

TEST(GroupSegments, EverySegmentIsInExactlyOneImage) {
  std::size_t others = 0;
  const std::vector<FoundSegment> all{sizes(3), data(1), data(2), data(10), sizes(20)};
  EXPECT_EQ(complete(all, &others), (Keys{"1,2,3"}));
  EXPECT_EQ(others, 1u) << "the record 20 with the segment 10";
  std::size_t count = 0;
  for (const FoundImage& image : groupSegments(all))
    count += image.data.size() + (image.sizeRecord ? 1 : 0);
  EXPECT_EQ(count, all.size());
}

TEST(GroupSegments, DataWithoutARecordIsAnIncompleteImage) {
  std::size_t others = 0;
  EXPECT_EQ(complete({data(1), data(2)}, &others), Keys());
  EXPECT_EQ(others, 2u);
}

TEST(ImageList, DoesNotDenyWhatCouldNotBeRead) {
  EXPECT_EQ(listText({}, 0), "no image of this library was found on this host\n");
  EXPECT_EQ(listText({}, 2), "no image of this library was found that this user may read\n");
  EXPECT_NE(listJson({}, 2).find("\"unreadableSegments\": 2"), std::string::npos);
}

TEST(KeyList, TakesDecimalAndHexadecimalKeysOfAllThirtyTwoBits) {
  EXPECT_EQ(parseKeys("1,0x10,-3"), (ImageKeys{1, 16, -3}));
  EXPECT_EQ(parseKeys("0xFFFFFFFE,2147483648,3"), (ImageKeys{-2, INT32_MIN, 3}));
  EXPECT_EQ(formatKeys({1, -2, 3}), "1,-2,3");
  EXPECT_EQ(formatKey(-2), "-2 (0xfffffffe)");
}

TEST(KeyList, RefusesWhatIsNoListOfThreeKeys) {
  for (const char* text : {"", "1", "1,2", "1,2,3,4", "1,2,x", "1,2,3x", "1,,3", "4294967296,1,2",
                           "-2147483649,1,2", "99999999999999999999,1,2"})
    EXPECT_THROW(parseKeys(text), CLI::ValidationError) << text;
}

TEST(ShmValues, TimesAreUtc) {
  EXPECT_EQ(formatTime(0), "never");
  EXPECT_EQ(formatTime(951827696), "2000-02-29T12:34:56Z");
}

}  // namespace
