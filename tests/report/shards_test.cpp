#include "report/shards.h"

#include <gtest/gtest.h>

#include <set>
#include <stdexcept>
#include <thread>
#include <vector>

namespace {

using tolvar::Shards;

template <std::size_t kShards>
long sumOf(Shards<long, kShards>& shards) {
  long sum = 0;
  shards.withEach([&sum](long& content) { sum += content; });
  return sum;
}

TEST(Shards, ThreadsAddUpExactly) {
  Shards<long, 2> shards;
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&shards] {
      for (int i = 0; i < 20000; ++i) EXPECT_TRUE(shards.withOne([](long& content) { ++content; }));
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(sumOf(shards), 80000);
}

TEST(Shards, AThreadKeepsItsShardWhileThatIsFree) {
  Shards<long> shards;
  std::set<long*> used;
  for (int i = 0; i < 10; ++i) shards.withOne([&used](long& content) { used.insert(&content); });
  EXPECT_EQ(used.size(), 1u);
}

TEST(Shards, ATakenShardIsPassedOver) {
  Shards<long, 2> shards;
  long* outer = nullptr;
  long* inner = nullptr;
  shards.withOne([&](long& content) {
    outer = &content;
    EXPECT_TRUE(shards.withOne([&inner](long& other) { inner = &other; }));
  });
  EXPECT_NE(outer, inner);
}

TEST(Shards, GivesUpWhenEveryLockIsTakenForGood) {
  Shards<long, 1> shards;
  shards.withOne([&shards](long& content) {
    content = 5;
    EXPECT_FALSE(shards.withOne([](long&) { ADD_FAILURE() << "ran without the lock"; }));
    EXPECT_EQ(sumOf(shards), 0) << "a locked shard is left out";
  });
  EXPECT_EQ(sumOf(shards), 5);
}

TEST(Shards, AnExceptionReleasesTheLock) {
  Shards<long, 1> shards;
  EXPECT_THROW(shards.withOne([](long&) { throw std::runtime_error("x"); }), std::runtime_error);
  EXPECT_TRUE(shards.withOne([](long&) {}));
}

}  // namespace
