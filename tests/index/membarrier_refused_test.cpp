#include <gtest/gtest.h>

#include <cerrno>
#include <thread>

#include "platform/membarrier.h"
#include "platform/system_calls.h"
#include "src/index/snapshot_holder.h"
#include "tests/index/self_checking.h"

namespace tolvar_test {
namespace {

using Holder = tolvar::SnapshotHolder<SelfChecking>;

int refuse(int, unsigned) {
  errno = EPERM;
  return -1;
}

/// A process may put itself under a filter of system calls long after its first lookup.
TEST(MembarrierRefused, PublishingGoesOnWhenTheKernelBeginsToRefuse) {
  const qel::SystemCalls real = qel::systemCalls();
  Holder holder(std::make_unique<const SelfChecking>(1));
  holder.publish(std::make_unique<const SelfChecking>(2));
  qel::systemCalls().membarrier = refuse;
  EXPECT_FALSE(qel::processBarrier());

  std::atomic<bool> stop{false};
  std::atomic<bool> sound{true};
  std::thread reader([&] {
    while (!stop) {
      if (!holder.read()->whole()) sound = false;
    }
  });
  for (std::uint64_t next = 3; next < 20; ++next) {
    holder.publish(std::make_unique<const SelfChecking>(next));
  }
  stop = true;
  reader.join();
  EXPECT_TRUE(sound);
  EXPECT_EQ(holder.read()->version(), 19u);
  qel::systemCalls() = real;
}

TEST(MembarrierRefused, RegistrationSaysWhetherTheKernelHasIt) {
  const qel::SystemCalls real = qel::systemCalls();
  qel::systemCalls().membarrier = refuse;
  EXPECT_FALSE(qel::registerProcessBarrier());
  qel::systemCalls().membarrier = [](int, unsigned) { return 0; };
  EXPECT_TRUE(qel::registerProcessBarrier());
  EXPECT_TRUE(qel::processBarrier());
  qel::systemCalls() = real;
}

}  // namespace
}  // namespace tolvar_test
