#pragma once

#include <functional>
#include <string>
#include <thread>

#include "platform/clock.h"

namespace tolvar::tools {

/// Says that a start is being waited for when it takes longer than a second, and why it does as
/// soon as that is known; each once.
class WaitNotice {
 public:
  static constexpr int kPatienceMillis = 1000;

  using Say = std::function<void(const std::string& line)>;

  /// `service` is who has not answered. `lastError` and `say` are called from a thread of this
  /// object's; `clock` outlives it.
  WaitNotice(std::string service, std::function<std::string()> lastError, Say say,
             qel::Clock& clock);

  /// Says nothing more.
  ~WaitNotice();

  WaitNotice(const WaitNotice&) = delete;
  WaitNotice& operator=(const WaitNotice&) = delete;

 private:
  void run();
  bool isOverWithin(int milliseconds);

  const std::string _service;
  const std::function<std::string()> _lastError;
  const Say _say;
  qel::Clock& _clock;
  qel::ZU_ThreadMutex _mutex;
  qel::ZU_ThreadCond _changed;
  bool _isOver = false;  ///< guarded by _mutex
  std::thread _thread;
};

}  // namespace tolvar::tools
