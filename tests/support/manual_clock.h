#pragma once

#include <cstdint>
#include <list>
#include <mutex>

#include "platform/clock.h"

namespace tolvar_test {

/// A clock that stands still until the test moves it. Waits on it end when they are notified or
/// when `advance` reaches their deadline; with `autoAdvance` a wait moves the clock itself and
/// returns at once, so that a loop of timed waits runs through in microseconds.
class ManualClock final : public qel::Clock {
 public:
  explicit ManualClock(bool autoAdvance = false, std::int64_t wallSeconds = 1700000000)
      : _autoAdvance(autoAdvance), _wallMicros(wallSeconds * 1000000) {}

  timeval timeOfDay() const override;
  std::int64_t steadyMillis() const override;
  bool wait(qel::ZU_ThreadCond& cond, qel::ZU_ThreadMutex& mutex, int milliseconds) override;

  /// Moves both clocks forwards and wakes the waits whose deadline is reached.
  void advance(std::int64_t milliseconds);

  /// Sets the wall clock only, as an operator or a time server does.
  void stepWall(std::int64_t milliseconds);

  /// Blocks (in real time) until `count` threads wait on this clock. A wait whose deadline
  /// `advance` has reached does not count, even when its thread has not woken up yet.
  void awaitWaiters(std::size_t count);

  std::size_t waiters() const;

 private:
  struct Waiter {
    qel::ZU_ThreadCond* cond;
    qel::ZU_ThreadMutex* mutex;
    std::int64_t deadline;
    bool due = false;
  };

  std::size_t countWaiters() const;

  const bool _autoAdvance;
  mutable qel::ZU_ThreadMutex _mutex;
  qel::ZU_ThreadCond _changed;
  std::int64_t _wallMicros;
  std::int64_t _steadyMillis = 5000;
  std::list<Waiter> _waiters;
};

}  // namespace tolvar_test
