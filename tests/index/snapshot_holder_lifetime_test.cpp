#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <memory>
#include <thread>

#include "src/index/snapshot_holder.h"
#include "tests/index/self_checking.h"

/// Threads, processes and mistakes: what the holder meets at the edges of their lives.
namespace tolvar_test {
namespace {

using Holder = tolvar::SnapshotHolder<SelfChecking>;

std::unique_ptr<const SelfChecking> version(std::uint64_t number) {
  return std::make_unique<const SelfChecking>(number);
}

TEST(TOLVAR_HOLDER_SUITE, ThreadsThatEndedHoldNothing) {
  Holder holder(version(1));
  for (int i = 0; i < 500; ++i) {
    std::thread([&] { EXPECT_TRUE(holder.read()->whole()); }).join();
  }
  holder.publish(version(2));
  EXPECT_EQ(holder.read()->version(), 2u);
}

/// Reads as its thread's thread_local objects are destroyed.
struct LateReader {
  const Holder* holder = nullptr;
  std::atomic<int>* sound = nullptr;
  ~LateReader() {
    if (holder == nullptr) return;
    const Holder::Guard guard = holder->read();
    const Holder::Guard nested = holder->read();
    if (guard->whole() && nested->whole()) ++*sound;
  }
};
thread_local LateReader lateReader;

TEST(TOLVAR_HOLDER_SUITE, ThreadLocalDestructorsMayRead) {
  Holder holder(version(1));
  std::atomic<int> sound{0};
  std::thread([&] {
    lateReader.holder = &holder;  // constructed before the first read, so destroyed after its slot
    lateReader.sound = &sound;
    EXPECT_TRUE(holder.read()->whole());
  }).join();
  std::thread([&] {
    lateReader.holder = &holder;  // the first read of this thread is the destructor's
    lateReader.sound = &sound;
  }).join();
  EXPECT_EQ(sound, 2);
  holder.publish(version(2));
  EXPECT_EQ(holder.read()->version(), 2u);
}

thread_local std::unique_ptr<Holder::Guard> lateGuard;

TEST(TOLVAR_HOLDER_SUITE, AGuardMayOutliveItsThreadsSlot) {
  Holder holder(version(1));
  std::thread([&] {
    lateGuard.reset();  // constructed before the first read, so destroyed after the slot's end
    lateGuard = std::make_unique<Holder::Guard>(holder.read());
  }).join();
  holder.publish(version(2));
  EXPECT_EQ(holder.read()->version(), 2u);
}

TEST(TOLVAR_HOLDER_SUITE, AForkedChildWaitsForNoThreadOfItsParent) {
  Holder holder(version(1));
  std::atomic<bool> holding{false};
  std::atomic<bool> release{false};
  std::thread reader([&] {
    const Holder::Guard guard = holder.read();
    holding = true;
    while (!release) std::this_thread::yield();
  });
  while (!holding) std::this_thread::yield();
  auto own = std::make_unique<Holder::Guard>(holder.read());
  const pid_t child = fork();
  if (child == 0) {
    alarm(30);
    const bool kept = (*own)->version() == 1 && (*own)->whole();
    own.reset();
    holder.publish(version(2));
    _exit(kept && holder.read()->version() == 2 ? 0 : 1);
  }
  ASSERT_GT(child, 0);
  int status = -1;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "status " << status;
  own.reset();
  release = true;
  reader.join();
  holder.publish(version(3));
  EXPECT_EQ(holder.read()->version(), 3u);
}

TEST(TOLVAR_HOLDER_SUITE, PublishingInsideAGuardAbortsWithAMessage) {
  testing::FLAGS_gtest_death_test_style = "threadsafe";
  Holder holder(version(1));
  EXPECT_DEATH(
      {
        const Holder::Guard guard = holder.read();
        holder.publish(version(2));
      },
      "the waiting thread is in no read section");
}

}  // namespace
}  // namespace tolvar_test
