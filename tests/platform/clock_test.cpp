#include "platform/clock.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <ctime>

#include "platform/thread.h"
#include "tests/support/manual_clock.h"

namespace {

using qel::Clock;
using qel::systemClock;
using qel::ZU_Monitor;
using qel::ZU_Thread;
using qel::ZU_ThreadCond;
using qel::ZU_ThreadMutex;
using tolvar_test::ManualClock;

using Monitor = ZU_Monitor<ZU_ThreadMutex, ZU_ThreadCond>;

/// Waits once on a monitor and keeps the answer.
class Waiter final : public ZU_Thread {
 public:
  Waiter(Monitor& monitor, Clock& clock, int milliseconds)
      : _monitor(monitor), _clock(clock), _milliseconds(milliseconds) {}
  ~Waiter() override { getThreadControl().join(); }

  /// True when the wait was ended by a notification. Valid after a join.
  bool woken() const { return _woken; }

 private:
  void run() override {
    Monitor::Lock hold(_monitor);
    _woken = _monitor.timedWait(_milliseconds, _clock);
  }

  Monitor& _monitor;
  Clock& _clock;
  const int _milliseconds;
  bool _woken = false;
};

TEST(SystemClock, TellsTheWallClock) {
  const std::time_t before = std::time(nullptr);
  const timeval now = systemClock().timeOfDay();
  const std::time_t seconds = systemClock().time();
  const std::time_t provided = qel::ZU_TimeProvider::getNow();
  const std::time_t after = std::time(nullptr);
  // time() reads a coarse clock that may lag the precise one by a tick.
  EXPECT_GE(now.tv_sec, before);
  EXPECT_LE(now.tv_sec, after + 1);
  EXPECT_GE(now.tv_usec, 0);
  EXPECT_LT(now.tv_usec, 1000000);
  EXPECT_GE(seconds, now.tv_sec);
  EXPECT_GE(provided, seconds);
}

TEST(SystemClock, SteadyTimeNeverGoesBack) {
  std::int64_t last = systemClock().steadyMillis();
  for (int i = 0; i < 100000; ++i) {
    const std::int64_t now = systemClock().steadyMillis();
    ASSERT_GE(now, last);
    last = now;
  }
}

TEST(SystemClock, AWaitThatNobodyEndsRunsOut) {
  Monitor monitor;
  Monitor::Lock hold(monitor);
  const std::int64_t start = systemClock().steadyMillis();
  while (monitor.timedWait(20, systemClock())) {
  }
  EXPECT_GE(systemClock().steadyMillis() - start, 19);
  while (monitor.timedWait(0)) {
  }
}

TEST(Monitor, AWaitEndsWhenItsTimeIsReached) {
  Monitor monitor;
  ManualClock clock;
  Waiter waiter(monitor, clock, 1000);
  waiter.start();
  clock.awaitWaiters(1);
  clock.advance(999);
  EXPECT_EQ(clock.waiters(), 1u);
  clock.advance(1);
  waiter.getThreadControl().join();
  EXPECT_FALSE(waiter.woken());
}

TEST(Monitor, AWaitEndsWhenItIsNotified) {
  Monitor monitor;
  ManualClock clock;
  Waiter first(monitor, clock, 1000), second(monitor, clock, 600000);
  first.start();
  second.start();
  clock.awaitWaiters(2);
  {
    Monitor::Lock hold(monitor);
    monitor.notifyAll();
  }
  first.getThreadControl().join();
  second.getThreadControl().join();
  EXPECT_TRUE(first.woken());
  EXPECT_TRUE(second.woken());
  EXPECT_EQ(clock.waiters(), 0u);
}

TEST(Monitor, AWaitOnTheSystemClockEndsWhenItIsNotified) {
  Monitor monitor;
  bool asked = false;
  class Notifier final : public ZU_Thread {
   public:
    Notifier(Monitor& monitor, bool& asked) : _monitor(monitor), _asked(asked) {}
    ~Notifier() override { getThreadControl().join(); }

   private:
    void run() override {
      Monitor::Lock hold(_monitor);
      _asked = true;
      _monitor.notifyAll();
    }
    Monitor& _monitor;
    bool& _asked;
  } notifier(monitor, asked);
  {
    Monitor::Lock hold(monitor);
    notifier.start();
    // The notifier cannot get in before this wait lets go of the monitor.
    bool woken = true;
    while (!asked) woken = monitor.timedWait(30000, systemClock());
    EXPECT_TRUE(woken);
  }
}

TEST(ManualClock, StandsStillUntilItIsMoved) {
  ManualClock clock(false, 1000);
  const std::int64_t steady = clock.steadyMillis();
  EXPECT_EQ(clock.time(), 1000);
  clock.advance(1500);
  EXPECT_EQ(clock.time(), 1001);
  EXPECT_EQ(clock.timeOfDay().tv_usec, 500000);
  EXPECT_EQ(clock.steadyMillis(), steady + 1500);
  clock.stepWall(-600000);
  EXPECT_EQ(clock.time(), 401);
  EXPECT_EQ(clock.steadyMillis(), steady + 1500);
}

TEST(ManualClock, AutoAdvanceMakesWaitsRunThrough) {
  ManualClock clock(true);
  Monitor monitor;
  Monitor::Lock hold(monitor);
  const std::int64_t start = clock.steadyMillis();
  for (int i = 0; i < 1000; ++i) EXPECT_FALSE(monitor.timedWait(600000, clock));
  EXPECT_EQ(clock.steadyMillis() - start, 600000000);
}

}  // namespace
