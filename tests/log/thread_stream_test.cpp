#include "log/thread_stream.h"

#include <gtest/gtest.h>

#include <barrier>
#include <iomanip>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace {

using qel::ZU_ThreadStream;

TEST(ThreadStream, BehavesLikeAStringStream) {
  ZU_ThreadStream stream;
  EXPECT_EQ(stream.str(), "");
  stream << "count=" << 3 << ' ' << std::hex << 255 << std::endl;
  EXPECT_EQ(stream.str(), "count=3 ff\n");
  stream.str("");
  EXPECT_EQ(stream.str(), "");
  stream.str("begun");
  stream << " and ended";
  EXPECT_EQ(stream.str(), "begun and ended");
}

TEST(ThreadStream, ALineBeginsWithFreshFormatting) {
  ZU_ThreadStream stream;
  stream << std::hex << std::setfill('0') << std::setw(6) << 255;
  EXPECT_EQ(stream.str(), "0000ff");
  stream.str("");
  stream << std::setw(4) << 255;
  EXPECT_EQ(stream.str(), " 255");
}

TEST(ThreadStream, ThreadsNeverSeeEachOthersText) {
  ZU_ThreadStream stream;
  std::barrier step(4);
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&stream, &step, t] {
      for (int i = 0; i < 200; ++i) {
        const std::string word(5, static_cast<char>('a' + t));
        stream << word;
        step.arrive_and_wait();
        stream << i;
        EXPECT_EQ(stream.str(), word + std::to_string(i));
        stream.str("");
      }
    });
  }
  for (auto& thread : threads) thread.join();
}

struct Nested {
  ZU_ThreadStream& other;
};
std::ostream& operator<<(std::ostream& out, const Nested& nested) {
  nested.other << "inner";
  EXPECT_EQ(nested.other.str(), "inner");
  nested.other.str("");
  return out << "between";
}

TEST(ThreadStream, LinesOfTwoObjectsOnOneThreadDoNotMix) {
  ZU_ThreadStream outer, inner;
  outer << "a " << Nested{inner} << " b";
  EXPECT_EQ(outer.str(), "a between b");
  EXPECT_EQ(inner.str(), "");
}

TEST(ThreadStream, ANewObjectDoesNotInheritAnUnfinishedLine) {
  auto first = std::make_unique<ZU_ThreadStream>();
  *first << "unfinished";
  std::thread([&first] { first.reset(); }).join();
  for (int i = 0; i < 50; ++i) {
    ZU_ThreadStream next;
    next << i;
    EXPECT_EQ(next.str(), std::to_string(i));
  }
}

TEST(ThreadStream, UnfinishedLinesOfManyLostObjectsAreForgotten) {
  std::vector<std::unique_ptr<ZU_ThreadStream>> lost;
  for (int i = 0; i < 1000; ++i) {
    lost.push_back(std::make_unique<ZU_ThreadStream>());
    *lost.back() << i;
  }
  EXPECT_EQ(lost.back()->str(), "999");
  EXPECT_EQ(lost.front()->str(), "");
}

}  // namespace
