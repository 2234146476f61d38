#include "log/log_channel.h"

#include <unistd.h>

#include <cstdio>
#include <mutex>
#include <new>
#include <system_error>
#include <utility>

#include "log/log_header.h"

namespace qel {
namespace {

using Hold = std::lock_guard<ZU_ThreadMutex>;
using Queue = ZU_ThreadQueue<LogEntry>;

}  // namespace

LogChannel::LogChannel(LogRoller& roller, Header header)
    : _process(getpid()), _header(std::move(header)), _roller(&roller) {}

bool LogChannel::isForkedCopy() const { return getpid() != _process; }

void LogChannel::submit(int level, std::string text) {
  LogRoller* roller = _roller.load(std::memory_order_acquire);
  if (roller == nullptr) return;
  if (isForkedCopy()) {
    roller->appendUnlocked(text);
    return;
  }
  const std::size_t bytes = text.size();
  const Queue::Pushed pushed = _queue.push({level, std::move(text)}, bytes);
  std::shared_ptr<LogSignal> signal;
  {
    // Read after the push: whoever detaches drains afterwards, so either that drain finds the line
    // or this thread finds no signal.
    Hold hold(_signalMutex);
    signal = _signal;
  }
  if (!signal) {
    drain();
  } else if (pushed == Queue::Pushed::kFirst) {
    signal->notify();
  }
}

void LogChannel::attach(std::shared_ptr<LogSignal> signal) {
  if (isForkedCopy()) return;
  Hold hold(_signalMutex);
  _signal.swap(signal);
}

bool LogChannel::drain() {
  if (isForkedCopy()) return true;
  Hold hold(_drainMutex);
  return drainLocked();
}

bool LogChannel::drainLocked() {
  LogRoller* roller = _roller.load(std::memory_order_acquire);
  if (roller == nullptr) return true;
  if (!_pending.empty() && !rollPending(*roller)) return false;
  _dropped += _queue.takeAll(&_pending);
  if (_dropped != 0) noteDropped();
  return _pending.empty() || rollPending(*roller);
}

void LogChannel::noteDropped() {
  try {
    _pending.emplace_back(kLogWarn, _header(kLogWarn) + "log queue full, " +
                                        std::to_string(_dropped) + " lines dropped here\n");
    _dropped = 0;
  } catch (const std::bad_alloc&) {
    // Told with the next lines.
  }
}

bool LogChannel::rollPending(LogRoller& roller) {
  _rollerUsed = true;
  // The second attempt is for a directory that the first one found missing and created.
  std::string failure;
  if (tryRoll(roller, &failure) || tryRoll(roller, &failure)) return true;
  complain(failure);
  return false;
}

bool LogChannel::tryRoll(LogRoller& roller, std::string* failure) {
  try {
    try {
      roller.roll(_pending);
      return true;
    } catch (const ZU_Exception& e) {
      *failure =
          std::string(e.what()) + " (" + std::generic_category().message(e.getErrCode()) + ")";
    } catch (const std::exception& e) {
      *failure = e.what();
    }
  } catch (const std::bad_alloc&) {
    failure->assign("no memory");  // short enough for the string object itself
  }
  return _pending.empty();
}

void LogChannel::complain(const std::string& failure) {
  const std::int64_t now = _clock->steadyMillis();
  if (now < _nextComplaint) return;
  _nextComplaint = now + kComplaintIntervalMillis;
  std::fprintf(stderr, "%s; %zu log lines are kept and tried again\n", failure.c_str(),
               _pending.size() + _queue.size());
}

void LogChannel::close() {
  if (isForkedCopy()) {
    _roller.store(nullptr, std::memory_order_release);
    return;
  }
  Hold hold(_drainMutex);
  if (!drainLocked()) {
    std::fprintf(stderr, "the log ends with %zu lines that could not be written\n",
                 _pending.size() + _queue.size());
  }
  _roller.store(nullptr, std::memory_order_release);
}

}  // namespace qel
