#include "report/report_store.h"

#include <gtest/gtest.h>

#include <atomic>
#include <limits>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace {

using namespace tolvar;

constexpr std::int64_t kNoLimit = std::numeric_limits<std::int32_t>::max();

std::uint64_t hitsIn(const PendingCounts& pending) {
  std::uint64_t hits = 0;
  for (const auto& count : pending.table.sorted()) hits += count.count;
  return hits;
}

class ReportStoreTest : public testing::Test {
 protected:
  std::unique_ptr<ReportStore> store = std::make_unique<ReportStore>();
  PendingCounts counts;
  PendingLines lines;
};

TEST_F(ReportStoreTest, CountsByTypeAndNameOverSeveralCollections) {
  store->addHit(ravel::ECountry, "Finland");
  store->addHit(ravel::EProvince, "Finland");
  store->addHit(ravel::ECountry, "Finland");
  store->collectCounts(&counts);
  store->addHit(ravel::ECountry, "Finland");
  store->addHit(ravel::ECountry, "");
  store->collectCounts(&counts);
  const auto all = counts.table.sorted();
  ASSERT_EQ(all.size(), 3u);
  EXPECT_EQ(all[0].info.name, "");
  EXPECT_EQ(all[0].count, 1u);
  EXPECT_EQ(all[1].info.name, "Finland");
  EXPECT_EQ(all[1].count, 3u);
  EXPECT_EQ(all[2].info.type, ravel::EProvince);
  EXPECT_EQ(all[2].count, 1u);
  EXPECT_EQ(counts.dropped, 0u);
}

TEST_F(ReportStoreTest, HitsOfManyThreadsAddUpExactlyWhileTheyAreCollected) {
  std::atomic<int> running{4};
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < 20000; ++i)
        store->addHit(static_cast<ravel::ReportType>(i % 4), "name " + std::to_string(i % 50));
      --running;
    });
  }
  while (running != 0) store->collectCounts(&counts);
  for (auto& thread : threads) thread.join();
  store->collectCounts(&counts);
  EXPECT_EQ(hitsIn(counts), 80000u);
  EXPECT_EQ(counts.dropped, 0u);
  const auto all = counts.table.sorted();
  EXPECT_EQ(all.size(), 100u);  // lcm(4, 50) pairs
  for (const auto& count : all) EXPECT_EQ(count.count, 800u);
}

TEST_F(ReportStoreTest, DistinctNamesAreBoundedAndTheRestIsCountedAsDropped) {
  const std::size_t most = ReportStore::kMaxNames;
  for (std::size_t i = 0; i < most + 100; ++i) store->addHit(ravel::ECity, std::to_string(i));
  store->addHit(ravel::ECity, "0");  // known names go on being counted
  store->collectCounts(&counts);
  EXPECT_EQ(counts.table.size(), most);
  EXPECT_EQ(hitsIn(counts), most + 1);
  EXPECT_EQ(counts.dropped, 100u);

  // What waits for delivery is bounded as well.
  store->addHit(ravel::ECity, "one more");
  store->addHit(ravel::ECity, "0");
  store->collectCounts(&counts);
  EXPECT_EQ(counts.table.size(), most);
  EXPECT_EQ(counts.dropped, 101u);

  // Once delivered, there is room again.
  counts = PendingCounts();
  store->addHit(ravel::ECity, "one more");
  store->collectCounts(&counts);
  EXPECT_EQ(counts.table.size(), 1u);
  EXPECT_EQ(counts.dropped, 0u);
}

TEST_F(ReportStoreTest, TheBoundHoldsOverAllThreadsTogether) {
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([this, t] {
      for (int i = 0; i < 8000; ++i)
        store->addHit(ravel::ECity, std::to_string(t) + "/" + std::to_string(i));
    });
  }
  for (auto& thread : threads) thread.join();
  store->collectCounts(&counts);
  EXPECT_EQ(counts.table.size(), ReportStore::kMaxNames);
  EXPECT_EQ(hitsIn(counts) + counts.dropped, 32000u);
}

TEST_F(ReportStoreTest, OverlongNamesAreDropped) {
  store->addHit(ravel::ECity, std::string(ReportStore::kMaxNameBytes, 'x'));
  store->addHit(ravel::ECity, std::string(ReportStore::kMaxNameBytes + 1, 'x'));
  store->collectCounts(&counts);
  EXPECT_EQ(counts.table.size(), 1u);
  EXPECT_EQ(counts.dropped, 1u);
}

TEST_F(ReportStoreTest, LinesKeepTheirOrder) {
  for (int i = 0; i < 100; ++i) store->addLine(std::to_string(i), 1000);
  store->collectLines(&lines);
  ASSERT_EQ(lines.lines.size(), 100u);
  for (int i = 0; i < 100; ++i) EXPECT_EQ(lines.lines[i], std::to_string(i));
}

TEST_F(ReportStoreTest, LinesOfEachThreadKeepTheirOrderWhileTheyAreCollected) {
  std::atomic<int> running{3};
  std::vector<std::thread> threads;
  for (int t = 0; t < 3; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < 5000; ++i)
        store->addLine(std::to_string(t) + " " + std::to_string(i), kNoLimit);
      --running;
    });
  }
  while (running != 0) store->collectLines(&lines);
  for (auto& thread : threads) thread.join();
  store->collectLines(&lines);
  ASSERT_EQ(lines.lines.size(), 15000u);
  int next[3] = {};
  for (const std::string& line : lines.lines) {
    const int thread = line[0] - '0';
    ASSERT_EQ(line.substr(2), std::to_string(next[thread]++));
  }
}

TEST_F(ReportStoreTest, LimitBoundsTheWaitingLines) {
  for (int i = 0; i < 5; ++i) store->addLine(std::to_string(i), 3);
  store->collectLines(&lines);
  EXPECT_EQ(lines.lines, (std::deque<std::string>{"0", "1", "2"}));
  EXPECT_EQ(lines.dropped, 2u);

  store->addLine("collected lines still wait", 3);
  store->collectLines(&lines);
  EXPECT_EQ(lines.lines.size(), 3u);
  EXPECT_EQ(lines.dropped, 3u);

  store->linesGone({"0", "1"});
  for (int i = 5; i < 8; ++i) store->addLine(std::to_string(i), 3);
  store->collectLines(&lines);
  EXPECT_EQ(lines.lines.size(), 5u);
  EXPECT_EQ(lines.dropped, 4u);
}

TEST_F(ReportStoreTest, WithoutALimitAboveZeroNoLineIsQueued) {
  store->addLine("a", 0);
  store->addLine("b", -1);
  store->addLine("c", std::numeric_limits<std::int32_t>::min());
  store->collectLines(&lines);
  EXPECT_TRUE(lines.lines.empty());
  EXPECT_EQ(lines.dropped, 3u);
}

TEST_F(ReportStoreTest, LinesAreBoundedInNumberAndBytesWhateverTheLimit) {
  for (int i = 0; i < ReportStore::kMaxLines + 3; ++i) store->addLine("", kNoLimit);
  store->collectLines(&lines);
  EXPECT_EQ(lines.lines.size(), static_cast<std::size_t>(ReportStore::kMaxLines));
  EXPECT_EQ(lines.dropped, 3u);
  store->linesGone({lines.lines.begin(), lines.lines.end()});

  lines = PendingLines();
  const std::string megabyte(1024 * 1024, 'x');
  for (int i = 0; i < 6; ++i) store->addLine(megabyte, kNoLimit);
  store->collectLines(&lines);
  EXPECT_EQ(lines.lines.size(), 4u);
  EXPECT_EQ(lines.dropped, 2u);
}

}  // namespace
