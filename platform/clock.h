#pragma once

#include <sys/time.h>

#include <cstdint>
#include <ctime>

#include "platform/thread.h"

namespace qel {

/// Time as the library sees it: the wall clock for log texts and for values that are sent to the
/// service, a steady clock for durations, and every timed wait. Code that needs time takes a
/// Clock&, so that a test moves ten minutes in a microsecond. All operations may be called from any
/// thread.
class Clock {
 public:
  virtual ~Clock() = default;

  /// Wall clock, seconds and microseconds since 1970-01-01 UTC.
  virtual timeval timeOfDay() const = 0;

  /// Wall clock, whole seconds since 1970-01-01 UTC.
  std::time_t time() const { return timeOfDay().tv_sec; }

  /// Milliseconds since an arbitrary start; never goes back.
  virtual std::int64_t steadyMillis() const = 0;

  /// Waits on `cond` for at most `milliseconds`; the caller holds `mutex`.
  /// Answers false when the time ran out, true when woken. Spurious wake-ups happen.
  virtual bool wait(ZU_ThreadCond& cond, ZU_ThreadMutex& mutex, int milliseconds) = 0;
};

/// The operating system's clocks. Lives as long as the process.
Clock& systemClock() noexcept;

/// Wall-clock seconds for callers without a clock of their own.
class ZU_TimeProvider {
 public:
  static std::time_t getNow() { return systemClock().time(); }
};

}  // namespace qel
