#pragma once

#include <algorithm>

namespace tolvar {

/// How long a step that keeps failing waits before it returns: not at all for the first eight
/// failures in a row, then 10 ms, doubling to 1 s. Used by one thread.
class RetryBackoff {
 public:
  static constexpr int kFreeFailures = 8;
  static constexpr int kFirstDelayMillis = 10;
  static constexpr int kMaxDelayMillis = 1000;

  /// Counts a failure; answers the milliseconds to wait, 0 for none.
  int failed() noexcept {
    if (_failures < kFreeFailures) {
      ++_failures;
      return 0;
    }
    const int delay = _nextDelay;
    _nextDelay = std::min(2 * _nextDelay, kMaxDelayMillis);
    return delay;
  }

  /// The last failures came one after the other for a while: more than a second, as the waits go.
  bool isLasting() const noexcept { return _nextDelay == kMaxDelayMillis; }

  void succeeded() noexcept { *this = RetryBackoff(); }

 private:
  int _failures = 0;
  int _nextDelay = kFirstDelayMillis;
};

}  // namespace tolvar
