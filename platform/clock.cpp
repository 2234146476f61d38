#include "platform/clock.h"

namespace qel {
namespace {

class SystemClock final : public Clock {
 public:
  timeval timeOfDay() const override {
    timeval now{};
    gettimeofday(&now, nullptr);
    return now;
  }

  std::int64_t steadyMillis() const override {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<std::int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
  }

  bool wait(ZU_ThreadCond& cond, ZU_ThreadMutex& mutex, int milliseconds) override {
    return cond.timedWait(mutex, milliseconds);
  }
};

}  // namespace

Clock& systemClock() noexcept {
  // Never destroyed: detached users may still ask for the time while the process exits.
  static SystemClock* clock = new SystemClock;
  return *clock;
}

}  // namespace qel
