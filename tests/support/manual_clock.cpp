#include "tests/support/manual_clock.h"

#include <sched.h>

#include <vector>

namespace tolvar_test {
namespace {
using Hold = std::lock_guard<qel::ZU_ThreadMutex>;
}

timeval ManualClock::timeOfDay() const {
  Hold hold(_mutex);
  return {static_cast<time_t>(_wallMicros / 1000000),
          static_cast<suseconds_t>(_wallMicros % 1000000)};
}

std::int64_t ManualClock::steadyMillis() const {
  Hold hold(_mutex);
  return _steadyMillis;
}

bool ManualClock::wait(qel::ZU_ThreadCond& cond, qel::ZU_ThreadMutex& mutex, int milliseconds) {
  if (_autoAdvance) {
    mutex.unlock();
    advance(milliseconds);
    sched_yield();
    mutex.lock();
    return false;
  }
  std::list<Waiter>::iterator self;
  std::int64_t deadline = 0;
  {
    Hold hold(_mutex);
    deadline = _steadyMillis + milliseconds;
    self = _waiters.insert(_waiters.end(), Waiter{&cond, &mutex, deadline});
    _changed.broadcast();
  }
  // `advance` takes `mutex` before it wakes anybody, so no wake-up falls between here and the wait.
  cond.wait(mutex);
  Hold hold(_mutex);
  _waiters.erase(self);
  return _steadyMillis < deadline;
}

void ManualClock::advance(std::int64_t milliseconds) {
  std::vector<Waiter> due;
  {
    Hold hold(_mutex);
    _steadyMillis += milliseconds;
    _wallMicros += milliseconds * 1000;
    for (Waiter& waiter : _waiters) {
      if (waiter.deadline > _steadyMillis) continue;
      waiter.due = true;
      due.push_back(waiter);
    }
  }
  for (const Waiter& waiter : due) {
    Hold hold(*waiter.mutex);
    waiter.cond->broadcast();
  }
}

void ManualClock::stepWall(std::int64_t milliseconds) {
  Hold hold(_mutex);
  _wallMicros += milliseconds * 1000;
}

void ManualClock::awaitWaiters(std::size_t count) {
  Hold hold(_mutex);
  while (countWaiters() < count) _changed.wait(_mutex);
}

std::size_t ManualClock::waiters() const {
  Hold hold(_mutex);
  return countWaiters();
}

std::size_t ManualClock::countWaiters() const {
  std::size_t count = 0;
  for (const Waiter& waiter : _waiters) count += waiter.due ? 0 : 1;
  return count;
}

}  // namespace tolvar_test
