#include "tools/tolvar/paced_clock.h"

#include <gtest/gtest.h>

namespace {

using tolvar::tools::PacedClock;

std::int64_t realMillis() { return qel::systemClock().steadyMillis(); }

TEST(PacedClock, BeginsAsTheSystemsClock) {
  const PacedClock clock;
  const std::int64_t before = realMillis();
  const std::int64_t shown = clock.steadyMillis();
  EXPECT_GE(shown, before);
  EXPECT_LE(shown, realMillis());
}

TEST(PacedClock, RunsFasterFromTheChangeOnWithoutAJump) {
  PacedClock clock;
  const std::int64_t before = realMillis();
  clock.setPace(1000);
  const std::int64_t from = clock.steadyMillis();
  EXPECT_GE(from, before);
  EXPECT_LE(from, realMillis() + 1000 * (realMillis() - before));
  qel::ZU_ThreadMutex mutex;
  qel::ZU_ThreadCond cond;
  mutex.lock();
  const std::int64_t waitedFrom = realMillis();
  while (realMillis() - waitedFrom < 20) clock.wait(cond, mutex, 20000);
  mutex.unlock();
  EXPECT_GE(clock.steadyMillis() - from, 20000 - 1000);
}

TEST(PacedClock, WaitsShorterButNeverSpins) {
  PacedClock clock;
  clock.setPace(10000);
  qel::ZU_ThreadMutex mutex;
  qel::ZU_ThreadCond cond;
  mutex.lock();
  const std::int64_t before = realMillis();
  EXPECT_FALSE(clock.wait(cond, mutex, 30000));
  mutex.unlock();
  const std::int64_t took = realMillis() - before;
  EXPECT_GE(took, 4);
  EXPECT_LT(took, 10000);
}

TEST(PacedClock, LeavesTheWallClockAlone) {
  PacedClock clock;
  clock.setPace(10000);
  const std::time_t before = qel::systemClock().time();
  const std::time_t shown = clock.time();
  EXPECT_GE(shown, before);
  EXPECT_LE(shown, qel::systemClock().time());
}

}  // namespace
