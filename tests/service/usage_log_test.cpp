#include "service/usage_log.h"

#include <gtest/gtest.h>

#include "tests/support/report_count.h"

namespace tolvar::service {
namespace {

using tolvar_test::hits;

TEST(UsageLog, SumsHitsPerTypeAndName) {
  UsageLog log;
  log.addCounts({hits(ravel::ECountry, "A", 2), hits(ravel::ECity, "A", 5)}, 0);
  log.addCounts({hits(ravel::ECountry, "A", 3), hits(ravel::ECountry, "", 1)}, 4);
  const Usage usage = log.snapshot();
  ASSERT_EQ(usage.counts.size(), 3u);
  EXPECT_EQ(usage.counts[0].info.name, "");
  EXPECT_EQ(usage.counts[1].info.name, "A");
  EXPECT_EQ(usage.counts[1].count, 5u);
  EXPECT_EQ(usage.counts[2].info.type, ravel::ECity);
  EXPECT_EQ(usage.counts[2].count, 5u);
  EXPECT_EQ(usage.droppedHits, 4u);
}

TEST(UsageLog, CountsWhatDoesNotFitAsDropped) {
  UsageLog log({.names = 1, .lines = 1, .textBytes = 3});
  log.addCounts(
      {hits(ravel::ECountry, "A", 1), hits(ravel::ECountry, "B", 2), hits(ravel::ECountry, "A", 4)},
      0);
  log.addCounts({hits(static_cast<ravel::ReportType>(7), "A", 8)}, 0);
  const Usage usage = log.snapshot();
  ASSERT_EQ(usage.counts.size(), 1u);
  EXPECT_EQ(usage.counts[0].count, 5u);
  EXPECT_EQ(usage.droppedHits, 10u);
}

TEST(UsageLog, DropsNamesThatAreTooLong) {
  UsageLog log({.names = 9, .lines = 1, .textBytes = 3});
  log.addCounts({hits(ravel::ECountry, "abc", 1), hits(ravel::ECountry, "abcd", 2)}, 0);
  EXPECT_EQ(log.snapshot().counts.size(), 1u);
  EXPECT_EQ(log.snapshot().droppedHits, 2u);
}

TEST(UsageLog, SumsDoNotWrap) {
  UsageLog log;
  log.addCounts({hits(ravel::ECountry, "A", UINT64_MAX)}, UINT64_MAX);
  log.addCounts({hits(ravel::ECountry, "A", 1)}, 1);
  EXPECT_EQ(log.snapshot().counts[0].count, UINT64_MAX);
  EXPECT_EQ(log.snapshot().droppedHits, UINT64_MAX);
}

TEST(UsageLog, KeepsTheLastLines) {
  UsageLog log({.names = 1, .lines = 3, .textBytes = 4});
  log.addLines({"1", "2"}, 5);
  log.addLines({"3", "too long"}, 6);
  const Usage usage = log.snapshot();
  EXPECT_EQ(usage.lines, (std::vector<std::string>{"2", "3", "too "}));
  EXPECT_EQ(usage.droppedLines, 11u);
}

}  // namespace
}  // namespace tolvar::service
