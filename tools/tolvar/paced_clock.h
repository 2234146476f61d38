#pragma once

#include <mutex>

#include "platform/clock.h"

namespace tolvar::tools {

/// The operating system's clock, whose steady time and timed waits can be made to run faster: a
/// client on it then does in seconds what it otherwise does in minutes. The wall clock stays as it
/// is. All operations may be called from any thread.
class PacedClock final : public qel::Clock {
 public:
  /// Steady time runs `pace` (1 or more) times as fast from now on. Waits under way stay as long as
  /// they were.
  void setPace(int pace);

  timeval timeOfDay() const override { return qel::systemClock().timeOfDay(); }
  std::int64_t steadyMillis() const override;

  /// The `pace`th part of `milliseconds`, but 5 ms at least, so that no loop spins.
  bool wait(qel::ZU_ThreadCond& cond, qel::ZU_ThreadMutex& mutex, int milliseconds) override;

 private:
  std::int64_t pacedLocked(std::int64_t real) const { return _from + (real - _realFrom) * _pace; }

  mutable std::mutex _mutex;
  // Guarded by _mutex: paced and real time of the last change of pace, and the pace since.
  std::int64_t _from = qel::systemClock().steadyMillis();
  std::int64_t _realFrom = _from;
  int _pace = 1;
};

}  // namespace tolvar::tools
