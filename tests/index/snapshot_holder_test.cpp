#include "src/index/snapshot_holder.h"

#include <gtest/gtest.h>

#include <thread>
#include <type_traits>
#include <vector>

#include "tests/index/self_checking.h"

namespace tolvar_test {
namespace {

using Holder = tolvar::SnapshotHolder<SelfChecking>;

static_assert(!std::is_copy_constructible_v<Holder::Guard>);
static_assert(std::is_nothrow_move_constructible_v<Holder::Guard>);

std::unique_ptr<const SelfChecking> version(std::uint64_t number) {
  return std::make_unique<const SelfChecking>(number);
}

TEST(TOLVAR_HOLDER_SUITE, AnswersNullUntilTheFirstPublication) {
  Holder holder;
  EXPECT_EQ(holder.read().get(), nullptr);
  EXPECT_FALSE(holder.read());
  holder.publish(version(1));
  ASSERT_TRUE(holder.read());
  EXPECT_EQ(holder.read()->version(), 1u);
  EXPECT_EQ((*holder.read()).version(), 1u);
}

TEST(TOLVAR_HOLDER_SUITE, DestroysWhatItReplaces) {
  const int before = SelfChecking::destroyed;
  {
    Holder holder(version(1));
    holder.publish(version(2));
    EXPECT_EQ(SelfChecking::destroyed, before + 1);
    holder.publish(nullptr);
    EXPECT_EQ(SelfChecking::destroyed, before + 2);
    EXPECT_EQ(holder.read().get(), nullptr);
    holder.publish(version(3));
    EXPECT_EQ(SelfChecking::destroyed, before + 2);
  }
  EXPECT_EQ(SelfChecking::destroyed, before + 3);
}

TEST(TOLVAR_HOLDER_SUITE, DestroysOnTheWritersThread) {
  struct Noting {
    std::thread::id* where;
    ~Noting() { *where = std::this_thread::get_id(); }
  };
  std::thread::id where;
  tolvar::SnapshotHolder<Noting> holder(std::unique_ptr<const Noting>(new Noting{&where}));
  std::thread writer([&] { holder.publish(nullptr); });
  const std::thread::id id = writer.get_id();
  writer.join();
  EXPECT_EQ(where, id);
}

TEST(TOLVAR_HOLDER_SUITE, TheWriterWaitsForAnOldReader) {
  const int before = SelfChecking::destroyed;
  Holder holder(version(1));
  std::atomic<bool> published{false};
  std::thread writer;
  {
    const Holder::Guard old = holder.read();
    writer = std::thread([&] {
      holder.publish(version(2));
      published = true;
    });
    // The new snapshot is there for new readers while the writer still waits for this one.
    while (holder.read()->version() != 2) std::this_thread::yield();
    EXPECT_FALSE(published);
    EXPECT_EQ(SelfChecking::destroyed, before);
    EXPECT_TRUE(old->whole());
    EXPECT_EQ(old->version(), 1u);
  }
  writer.join();
  EXPECT_EQ(SelfChecking::destroyed, before + 1);
}

TEST(TOLVAR_HOLDER_SUITE, AWaitingWriterKeepsNobodyFromReading) {
  Holder holder(version(1));
  std::thread writer;
  {
    const Holder::Guard old = holder.read();
    writer = std::thread([&] { holder.publish(version(2)); });
    while (holder.read()->version() != 2) std::this_thread::yield();
    // Threads that never read before come and go meanwhile.
    for (int i = 0; i < 50; ++i) {
      std::thread([&] { EXPECT_EQ(holder.read()->version(), 2u); }).join();
    }
    EXPECT_EQ(old->version(), 1u);
  }
  writer.join();
}

TEST(TOLVAR_HOLDER_SUITE, GuardsNest) {
  Holder holder(version(1));
  Holder other(version(10));
  std::thread writer;
  {
    const Holder::Guard outer = holder.read();
    {
      const Holder::Guard inner = holder.read();
      const Holder::Guard foreign = other.read();
      EXPECT_EQ(inner.get(), outer.get());
      EXPECT_EQ(foreign->version(), 10u);
    }
    writer = std::thread([&] { holder.publish(version(2)); });
    while (holder.read()->version() != 2) std::this_thread::yield();
    EXPECT_TRUE(outer->whole());
    EXPECT_EQ(outer->version(), 1u);
  }
  writer.join();
  EXPECT_EQ(holder.read()->version(), 2u);
}

TEST(TOLVAR_HOLDER_SUITE, AMovedGuardKeepsHolding) {
  const int before = SelfChecking::destroyed;
  Holder holder(version(1));
  std::thread writer;
  {
    Holder::Guard first = holder.read();
    Holder::Guard second = std::move(first);
    EXPECT_EQ(first.get(), nullptr);
    writer = std::thread([&] { holder.publish(version(2)); });
    while (holder.read()->version() != 2) std::this_thread::yield();
    Holder::Guard third = holder.read();
    third = std::move(second);
    EXPECT_EQ(third->version(), 1u);
    EXPECT_TRUE(third->whole());
    EXPECT_EQ(SelfChecking::destroyed, before);
  }
  writer.join();
  EXPECT_EQ(SelfChecking::destroyed, before + 1);
}

TEST(TOLVAR_HOLDER_SUITE, SynchronizeWaitsForSectionsOfAnyHolder) {
  Holder holder(version(1));
  std::atomic<bool> started{false};
  std::atomic<bool> done{false};
  std::thread waiter;
  {
    const tolvar::ReadSection section;
    waiter = std::thread([&] {
      started = true;
      Holder::synchronize();
      done = true;
    });
    while (!started) std::this_thread::yield();
    for (int i = 0; i < 1000; ++i) holder.read();
    EXPECT_FALSE(done);
  }
  waiter.join();
  EXPECT_TRUE(done);
}

TEST(TOLVAR_HOLDER_SUITE, ReadersNeverSeeAHalfOrFormerSnapshot) {
  constexpr std::uint64_t kVersions = 300;
  Holder holder(version(1));
  std::atomic<bool> stop{false};
  std::atomic<bool> sound{true};
  const auto readFor = [&](int reads) {
    std::uint64_t last = 0;
    for (int i = 0; i < reads; ++i) {
      const Holder::Guard guard = holder.read();
      const std::uint64_t seen = guard->version();
      if (seen < last || !guard->whole()) sound = false;
      last = seen;
    }
  };
  std::vector<std::thread> threads;
  for (int i = 0; i < 3; ++i) {
    threads.emplace_back([&] {
      while (!stop) readFor(100);
    });
  }
  threads.emplace_back([&] {
    while (!stop) std::thread(readFor, 20).join();
  });
  for (std::uint64_t next = 2; next <= kVersions; ++next) holder.publish(version(next));
  stop = true;
  for (std::thread& thread : threads) thread.join();
  EXPECT_TRUE(sound);
  EXPECT_EQ(holder.read()->version(), kVersions);
}

TEST(TOLVAR_HOLDER_SUITE, SeveralWritersDestroyEverySnapshotOnce) {
  const int before = SelfChecking::destroyed;
  constexpr int kWriters = 3;
  constexpr int kEach = 300;
  {
    Holder holder(version(1));
    std::atomic<bool> sound{true};
    std::vector<std::thread> writers;
    for (int w = 0; w < kWriters; ++w) {
      writers.emplace_back([&] {
        for (int i = 0; i < kEach; ++i) {
          holder.publish(version(static_cast<std::uint64_t>(i)));
          if (!holder.read()->whole()) sound = false;
        }
      });
    }
    for (std::thread& writer : writers) writer.join();
    EXPECT_TRUE(sound);
  }
  EXPECT_EQ(SelfChecking::destroyed, before + 1 + kWriters * kEach);
}

}  // namespace
}  // namespace tolvar_test
