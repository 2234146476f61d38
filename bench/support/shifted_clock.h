#pragma once

#include <atomic>

#include "platform/clock.h"

namespace tolvar_bench {

/// The operating system's clocks, moved forward on demand: ten minutes to the next change check
/// need not be waited for. Durations stay true. Any thread.
class ShiftedClock : public qel::Clock {
 public:
  void advance(std::int64_t seconds) noexcept { _shift += seconds; }

  timeval timeOfDay() const override {
    timeval now = qel::systemClock().timeOfDay();
    now.tv_sec += _shift;
    return now;
  }
  std::int64_t steadyMillis() const override {
    return qel::systemClock().steadyMillis() + _shift * 1000;
  }
  bool wait(qel::ZU_ThreadCond& cond, qel::ZU_ThreadMutex& mutex, int milliseconds) override {
    return qel::systemClock().wait(cond, mutex, milliseconds);
  }

 private:
  std::atomic<std::int64_t> _shift{0};
};

}  // namespace tolvar_bench
