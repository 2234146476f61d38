#include "log/thread_queue.h"

#include <gtest/gtest.h>

#include <deque>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace {

using Queue = qel::ZU_ThreadQueue<std::string>;
using Pushed = Queue::Pushed;

TEST(ThreadQueue, KeepsOrderAndTellsTheFirst) {
  Queue queue(10, 100);
  EXPECT_EQ(queue.push("a", 1), Pushed::kFirst);
  EXPECT_EQ(queue.push("b", 1), Pushed::kBehindOthers);
  std::deque<std::string> items;
  EXPECT_EQ(queue.takeAll(&items), 0u);
  EXPECT_EQ(items, (std::deque<std::string>{"a", "b"}));
  EXPECT_EQ(queue.size(), 0u);
  EXPECT_EQ(queue.push("c", 1), Pushed::kFirst);
}

TEST(ThreadQueue, RefusesTheNewestBeyondTheNumberOfItems) {
  Queue queue(2, 100);
  queue.push("a", 1);
  queue.push("b", 1);
  EXPECT_EQ(queue.push("c", 1), Pushed::kRefused);
  EXPECT_EQ(queue.push("d", 1), Pushed::kRefused);
  std::deque<std::string> items;
  EXPECT_EQ(queue.takeAll(&items), 2u);
  EXPECT_EQ(items, (std::deque<std::string>{"a", "b"}));
  EXPECT_EQ(queue.takeAll(&items), 0u);
  EXPECT_TRUE(items.empty());
}

TEST(ThreadQueue, RefusesTheNewestBeyondTheBytes) {
  Queue queue(100, 10);
  EXPECT_EQ(queue.push("a", 7), Pushed::kFirst);
  EXPECT_EQ(queue.push("b", 4), Pushed::kRefused);
  EXPECT_EQ(queue.push("c", 3), Pushed::kBehindOthers);
  std::deque<std::string> items;
  EXPECT_EQ(queue.takeAll(&items), 1u);
  EXPECT_EQ(queue.push("d", 10), Pushed::kFirst);
  EXPECT_EQ(queue.push("e", SIZE_MAX), Pushed::kRefused);
}

TEST(ThreadQueue, ProducersAndConsumerLoseNothing) {
  qel::ZU_ThreadQueue<std::pair<int, int>> queue(1 << 20, 1 << 20);
  std::vector<std::thread> producers;
  for (int t = 0; t < 4; ++t) {
    producers.emplace_back([&queue, t] {
      for (int i = 0; i < 2000; ++i) queue.push({t, i}, 1);
    });
  }
  std::vector<int> next(4, 0);
  int seen = 0;
  while (seen < 8000) {
    std::deque<std::pair<int, int>> items;
    EXPECT_EQ(queue.takeAll(&items), 0u);
    for (const auto& [producer, number] : items) EXPECT_EQ(number, next[producer]++);
    seen += static_cast<int>(items.size());
    std::this_thread::yield();
  }
  for (auto& producer : producers) producer.join();
}

}  // namespace
