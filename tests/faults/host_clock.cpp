#include "tests/faults/host_clock.h"

#include <algorithm>
#include <chrono>
#include <cstdlib>

namespace tolvar_test {
namespace {

constexpr std::int64_t kEpochSeconds = 1700000000;
constexpr int kRoundMillis = 100;
#ifdef __SANITIZE_THREAD__  // under which a start that makes segments of full size takes a second
constexpr int kRealRoundMillis = 15;
#else
constexpr int kRealRoundMillis = 3;
#endif
constexpr int kLongestRestMillis = 1000;
constexpr std::chrono::seconds kPatience{10};

}  // namespace

std::int64_t HostClock::now() const {
  std::lock_guard<std::mutex> hold(_mutex);
  return _millis;
}

timeval HostClock::timeOfDay() const {
  const std::int64_t millis = now();
  return {kEpochSeconds + millis / 1000, millis % 1000 * 1000};
}

std::int64_t HostClock::steadyMillis() const { return now(); }

bool HostClock::wait(qel::ZU_ThreadCond& cond, qel::ZU_ThreadMutex& mutex, int milliseconds) {
  if (milliseconds == kRoundMillis) {
    if (cond.timedWait(mutex, kRealRoundMillis)) return true;
    mutex.unlock();
    advance(milliseconds);
    mutex.lock();
    return false;
  }
  Waiters::iterator self;
  {
    std::lock_guard<std::mutex> hold(_mutex);
    const bool rests = milliseconds <= kLongestRestMillis;
    self = std::find_if(_waiters.begin(), _waiters.end(),
                        [](const Waiter& waiter) { return !waiter.waits; });
    if (self == _waiters.end()) std::abort();
    *self = {&cond, &mutex, _millis + milliseconds, rests, true, false};
    _resting.notify_all();
  }
  // `advance` takes `mutex` before it wakes anybody, so no wake-up falls between here and the wait.
  cond.wait(mutex);
  std::lock_guard<std::mutex> hold(_mutex);
  const bool notified = _millis < self->end;
  self->waits = false;
  return notified;
}

bool HostClock::awaitRest() {
  std::unique_lock<std::mutex> hold(_mutex);
  return _resting.wait_for(hold, kPatience, [this] {
    return std::any_of(_waiters.begin(), _waiters.end(), [](const Waiter& waiter) {
      return waiter.waits && waiter.rests && !waiter.due;
    });
  });
}

void HostClock::advance(std::int64_t milliseconds) {
  Waiters due;
  {
    std::lock_guard<std::mutex> hold(_mutex);
    _millis += milliseconds;
    for (Waiter& waiter : _waiters)
      if (waiter.end <= _millis) waiter.due = true;
    due = _waiters;
  }
  for (const Waiter& waiter : due) {
    if (!waiter.waits || !waiter.due) continue;
    std::lock_guard<qel::ZU_ThreadMutex> hold(*waiter.mutex);
    waiter.cond->broadcast();
  }
}

}  // namespace tolvar_test
