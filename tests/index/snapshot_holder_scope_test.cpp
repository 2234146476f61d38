#include <gtest/gtest.h>

#include <thread>

#include "src/index/snapshot_holder.h"
#include "tests/index/self_checking.h"

namespace tolvar_test {
namespace {

using Holder = tolvar::SnapshotHolder<SelfChecking>;

std::unique_ptr<const SelfChecking> version(std::uint64_t number) {
  return std::make_unique<const SelfChecking>(number);
}

TEST(TOLVAR_HOLDER_SUITE, WithAnswersWhatItsFunctionAnswers) {
  Holder holder;
  EXPECT_TRUE(holder.with([](const SelfChecking* snapshot) { return snapshot == nullptr; }));
  holder.publish(version(7));
  EXPECT_EQ(holder.with([](const SelfChecking* snapshot) { return snapshot->version(); }), 7u);
}

TEST(TOLVAR_HOLDER_SUITE, TheWriterWaitsForAFunctionThatReads) {
  Holder holder(version(1));
  const int before = SelfChecking::destroyed;
  std::thread writer;
  holder.with([&](const SelfChecking* old) {
    writer = std::thread([&] { holder.publish(version(2)); });
    while (holder.read()->version() != 2) std::this_thread::yield();
    EXPECT_EQ(SelfChecking::destroyed, before);
    EXPECT_TRUE(old->whole());
    EXPECT_EQ(old->version(), 1u);
  });
  writer.join();
  EXPECT_EQ(SelfChecking::destroyed, before + 1);
}

TEST(TOLVAR_HOLDER_SUITE, AFunctionThatReadsInsideAGuardDoesNotEndIt) {
  Holder holder(version(1));
  const int before = SelfChecking::destroyed;
  std::thread writer;
  {
    const Holder::Guard outer = holder.read();
    EXPECT_EQ(holder.with([](const SelfChecking* inner) { return inner->version(); }), 1u);
    writer = std::thread([&] { holder.publish(version(2)); });
    while (holder.with([](const SelfChecking* now) { return now->version(); }) != 2)
      std::this_thread::yield();
    EXPECT_EQ(SelfChecking::destroyed, before);
    EXPECT_TRUE(outer->whole());
  }
  writer.join();
}

TEST(TOLVAR_HOLDER_SUITE, AGuardInsideAFunctionThatReadsDoesNotEndIt) {
  Holder holder(version(1));
  const int before = SelfChecking::destroyed;
  std::thread writer;
  holder.with([&](const SelfChecking* outer) {
    {
      const Holder::Guard inner = holder.read();
      EXPECT_EQ(inner.get(), outer);
    }
    writer = std::thread([&] { holder.publish(version(2)); });
    while (holder.read()->version() != 2) std::this_thread::yield();
    EXPECT_EQ(SelfChecking::destroyed, before);
    EXPECT_TRUE(outer->whole());
  });
  writer.join();
  EXPECT_EQ(SelfChecking::destroyed, before + 1);
}

TEST(TOLVAR_HOLDER_SUITE, AnExceptionEndsTheFunctionThatReads) {
  Holder holder(version(1));
  EXPECT_THROW(holder.with([](const SelfChecking*) -> int { throw 1; }), int);
  holder.publish(version(2));  // would abort inside a section
  EXPECT_EQ(holder.read()->version(), 2u);
}

/// Reads as its thread's thread_local objects are destroyed.
struct LateCaller {
  Holder* holder = nullptr;
  std::atomic<std::uint64_t>* seen = nullptr;
  ~LateCaller() {
    for (int i = 0; holder != nullptr && i < 3; ++i) {
      *seen += holder->with([this](const SelfChecking* outer) {
        return outer->version() +
               holder->with([](const SelfChecking* inner) { return inner->version(); });
      });
    }
  }
};
thread_local LateCaller lateCaller;

TEST(TOLVAR_HOLDER_SUITE, AThreadCallsWithUntilItsVeryEnd) {
  Holder holder(version(5));
  std::atomic<std::uint64_t> seen{0};
  std::thread([&] {
    lateCaller.holder = &holder;
    lateCaller.seen = &seen;
    EXPECT_EQ(holder.with([](const SelfChecking* now) { return now->version(); }), 5u);
  }).join();
  EXPECT_EQ(seen, 30u);
  holder.publish(version(6));  // waits for no thread that has gone
}

}  // namespace
}  // namespace tolvar_test
