#include "tools/tolvar/paced_clock.h"

#include <algorithm>

namespace tolvar::tools {
namespace {

constexpr int kShortestWaitMillis = 5;

}  // namespace

void PacedClock::setPace(int pace) {
  const std::lock_guard lock(_mutex);
  const std::int64_t real = qel::systemClock().steadyMillis();
  _from = pacedLocked(real);
  _realFrom = real;
  _pace = pace;
}

std::int64_t PacedClock::steadyMillis() const {
  const std::lock_guard lock(_mutex);
  return pacedLocked(qel::systemClock().steadyMillis());
}

bool PacedClock::wait(qel::ZU_ThreadCond& cond, qel::ZU_ThreadMutex& mutex, int milliseconds) {
  int pace = 1;
  {
    const std::lock_guard lock(_mutex);
    pace = _pace;
  }
  const int paced = std::min(milliseconds, std::max(milliseconds / pace, kShortestWaitMillis));
  return qel::systemClock().wait(cond, mutex, paced);
}

}  // namespace tolvar::tools
