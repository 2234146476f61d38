#include "tools/tolvar/wait_notice.h"

#include <mutex>
#include <utility>

namespace tolvar::tools {
namespace {

constexpr int kLookEveryMillis = 100;

}  // namespace

WaitNotice::WaitNotice(std::string service, std::function<std::string()> lastError, Say say,
                       qel::Clock& clock)
    : _service(std::move(service)),
      _lastError(std::move(lastError)),
      _say(std::move(say)),
      _clock(clock),
      _thread([this] { run(); }) {}

WaitNotice::~WaitNotice() {
  {
    const std::lock_guard<qel::ZU_ThreadMutex> lock(_mutex);
    _isOver = true;
    _changed.broadcast();
  }
  _thread.join();
}

void WaitNotice::run() {
  if (isOverWithin(kPatienceMillis)) return;
  _say("no answer from " + _service + " yet; waiting for up to half a minute");
  std::string error = _lastError();
  while (error.empty()) {
    if (isOverWithin(kLookEveryMillis)) return;
    error = _lastError();
  }
  _say("still waiting: " + error);
}

bool WaitNotice::isOverWithin(int milliseconds) {
  const std::lock_guard<qel::ZU_ThreadMutex> lock(_mutex);
  const std::int64_t end = _clock.steadyMillis() + milliseconds;
  while (!_isOver) {
    const std::int64_t left = end - _clock.steadyMillis();
    if (left <= 0) return false;
    _clock.wait(_changed, _mutex, static_cast<int>(left));
  }
  return true;
}

}  // namespace tolvar::tools
