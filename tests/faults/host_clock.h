#pragma once

#include <array>
#include <condition_variable>
#include <cstdint>
#include <mutex>

#include "platform/clock.h"

namespace tolvar_test {

/// The clock of a client whose days pass in milliseconds. The rounds of 100 ms in which
/// `initialize` waits move it themselves, after a moment in which they can be notified; every other
/// wait lasts until it is notified or the test moves the clock past its end.
class HostClock final : public qel::Clock {
 public:
  timeval timeOfDay() const override;
  std::int64_t steadyMillis() const override;
  bool wait(qel::ZU_ThreadCond& cond, qel::ZU_ThreadMutex& mutex, int milliseconds) override;

  /// Waits in real time until the update thread rests, that is, waits for a second or less. False
  /// when it does not come to rest within ten seconds.
  bool awaitRest();

  void advance(std::int64_t milliseconds);

 private:
  struct Waiter {
    qel::ZU_ThreadCond* cond;
    qel::ZU_ThreadMutex* mutex;
    std::int64_t end;
    bool rests;
    bool waits;
    bool due;
  };

  /// More than the threads of a client; no memory is asked for, as by the system's clocks.
  using Waiters = std::array<Waiter, 16>;

  std::int64_t now() const;

  mutable std::mutex _mutex;
  std::condition_variable _resting;
  // Guarded by _mutex.
  std::int64_t _millis = 5000;
  Waiters _waiters{};
};

}  // namespace tolvar_test
