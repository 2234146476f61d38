#include "report/report_courier.h"

#include <algorithm>
#include <csignal>
#include <cstdint>
#include <iterator>
#include <new>
#include <type_traits>
#include <utility>

#include "platform/exception.h"
#include "platform/system_calls.h"

namespace tolvar {

ReportCourier::ReportCourier(std::shared_ptr<ReportStore> store, qel::Clock& clock,
                             int intervalMillis)
    : _store(std::move(store)), _clock(clock), _intervalMillis(intervalMillis) {}

void ReportCourier::setProxy(ravel::TolvarPrx proxy) {
  // The old proxy is released without the lock: its end may take its time.
  Lock lock(_mutex);
  _proxy.swap(proxy);
  lock.unlock();
}

void ReportCourier::setDeliverAtEnd(bool deliver) {
  Lock lock(_mutex);
  _deliverAtEnd = deliver;
}

void ReportCourier::start() {
  if (_started) return;
  {
    Lock lock(_mutex);
    _stopping = false;
    _finished = false;
    _cancelled = false;
  }
  auto* self = new std::shared_ptr<ReportCourier>(shared_from_this());
  // The host's signal handlers belong to the host's threads.
  sigset_t all, previous;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &previous);
  const int error = qel::systemCalls().pthreadCreate(&_thread, nullptr, &entry, self);
  pthread_sigmask(SIG_SETMASK, &previous, nullptr);
  if (error != 0) {
    delete self;
    throw qel::ZU_Exception("[ClientReport::start]: pthread_create failed", error);
  }
  _started = true;
}

bool ReportCourier::stop(int millis) {
  if (!_started) return true;
  _started = false;
  const std::int64_t now = qel::systemClock().steadyMillis();
  Lock lock(_mutex);
  const std::int64_t end = now + (_deliverAtEnd ? millis : kCancelMillis);
  _stopping = true;
  _wake.broadcast();
  awaitEnd(std::max(now, end - kCancelMillis));
  if (!_finished) {
    cancelCall(lock);
    awaitEnd(end);
  }
  _leftAlone = !_finished;
  lock.unlock();
  if (_leftAlone) {
    pthread_detach(_thread);
    return false;
  }
  pthread_join(_thread, nullptr);
  return true;
}

/// Waits for the thread's end, or until `callsUntil` while it is inside a call: outside one it ends
/// by itself in no time.
void ReportCourier::awaitEnd(std::int64_t callsUntil) {
  while (!_finished) {
    const std::int64_t left = callsUntil - qel::systemClock().steadyMillis();
    if (_calling && left <= 0) return;
    _changed.timedWait(_mutex, static_cast<int>(std::max<std::int64_t>(left, 1)));
  }
}

void ReportCourier::cancelCall(Lock& lock) {
  _cancelled = true;
  const ravel::TolvarPrx proxy = _proxy;
  lock.unlock();
  try {
    if (proxy != nullptr) proxy->cancelCalls();
  } catch (...) {
    // The call goes on, then, and is left to itself if it goes on for too long.
  }
  lock.lock();
}

std::shared_ptr<ReportCourier> ReportCourier::successor() {
  auto next = std::make_shared<ReportCourier>(_store, _clock, _intervalMillis);
  Lock lock(_mutex);
  next->_proxy = _proxy;
  next->_deliverAtEnd = _deliverAtEnd;
  next->_counts = std::exchange(_counts, {});
  next->_lines = std::exchange(_lines, {});
  return next;
}

void* ReportCourier::entry(void* self) {
  const std::unique_ptr<std::shared_ptr<ReportCourier>> courier(
      static_cast<std::shared_ptr<ReportCourier>*>(self));
  (*courier)->run();
  return nullptr;
}

void ReportCourier::run() {
  Lock lock(_mutex);
  for (bool last = false; !last && !_leftAlone;) {
    awaitInterval();
    last = _stopping;
    if (last && !_deliverAtEnd) break;
    if (_proxy == nullptr) continue;
    try {
      deliver(lock);
    } catch (const std::exception&) {
      // No memory for a delivery; the next interval tries again.
    }
  }
  _finished = true;
  _changed.broadcast();
}

void ReportCourier::awaitInterval() {
  const std::int64_t end = _clock.steadyMillis() + _intervalMillis;
  while (!_stopping) {
    const std::int64_t left = end - _clock.steadyMillis();
    if (left <= 0) return;
    _clock.wait(_wake, _mutex, static_cast<int>(left));
  }
}

void ReportCourier::deliver(Lock& lock) {
  _store->collectCounts(&_counts);
  _store->collectLines(&_lines);
  if (deliverCounts(lock)) deliverLines(lock);
}

/// Calls the service without the lock. Answers true when the call returned and this thread is still
/// wanted.
template <class Call>
bool ReportCourier::callService(Lock& lock, Call call) {
  ravel::TolvarPrx proxy = _proxy;
  if (proxy == nullptr || _cancelled) return false;
  _calling = true;
  _changed.broadcast();
  lock.unlock();
  bool returned = false;
  try {
    call(*proxy);
    returned = true;
  } catch (const std::exception&) {
    // Kept and repeated at the next interval; the update thread is the one that reports an
    // unreachable service.
  } catch (...) {
  }
  // May be the last reference, and its end may block: before this thread counts as done calling.
  proxy.reset();
  lock.lock();
  _calling = false;
  _changed.broadcast();
  return returned;
}

bool ReportCourier::deliverCounts(Lock& lock) {
  std::vector<ravel::ReportCount> all = _counts.table.sorted();
  std::vector<ravel::ReportCount> some;
  some.reserve(std::min(kCountsPerCall, all.size()));
  // Nothing below throws for want of memory: names are moved, never copied, so that none is lost
  // between the table and the call.
  static_assert(std::is_nothrow_move_constructible_v<ravel::ReportCount> &&
                std::is_nothrow_move_assignable_v<ravel::ReportCount>);
  std::uint64_t dropped = std::exchange(_counts.dropped, 0);
  _counts.table = CountTable();
  auto begin = all.begin();
  while (begin != all.end() || dropped != 0) {
    const std::size_t size = std::min(kCountsPerCall, static_cast<std::size_t>(all.end() - begin));
    const auto end = begin + static_cast<std::ptrdiff_t>(size);
    some.assign(std::make_move_iterator(begin), std::make_move_iterator(end));
    const bool delivered = callService(
        lock, [&](ravel::TolvarProxy& service) { service.reportCounts(some, dropped); });
    if (_leftAlone) return false;
    if (!delivered) {
      std::move(some.begin(), some.end(), begin);
      break;
    }
    begin = end;
    dropped = 0;
  }
  const bool complete = begin == all.end() && dropped == 0;
  for (; begin != all.end(); ++begin) _counts.add(begin->info.type, begin->info.name, begin->count);
  _counts.dropped += dropped;
  return complete;
}

std::vector<std::string> ReportCourier::takeLines() {
  std::vector<std::string> taken;
  // Nothing is taken before there is room for it.
  taken.reserve(std::min(kLinesPerCall, _lines.lines.size()));
  std::size_t bytes = 0;
  while (!_lines.lines.empty() && taken.size() < kLinesPerCall) {
    bytes += _lines.lines.front().size();
    if (bytes > kLineBytesPerCall && !taken.empty()) break;
    taken.push_back(std::move(_lines.lines.front()));
    _lines.lines.pop_front();
  }
  return taken;
}

/// Puts lines of a failed call back in front of the others. Those that there is no memory for are
/// lost and count as dropped.
void ReportCourier::putBack(std::vector<std::string> lines) noexcept {
  try {
    for (; !lines.empty(); lines.pop_back()) _lines.lines.push_front(std::move(lines.back()));
  } catch (const std::bad_alloc&) {
    _store->linesGone(lines);
    _lines.dropped += lines.size();
  }
}

void ReportCourier::deliverLines(Lock& lock) {
  while (!_lines.lines.empty() || _lines.dropped != 0) {
    std::vector<std::string> some = takeLines();
    const std::uint64_t dropped = std::exchange(_lines.dropped, 0);
    const bool delivered =
        callService(lock, [&](ravel::TolvarProxy& service) { service.reportLines(some, dropped); });
    if (delivered || _leftAlone) _store->linesGone(some);
    if (_leftAlone) return;
    if (!delivered) {
      putBack(std::move(some));
      _lines.dropped += dropped;
      return;
    }
  }
}

}  // namespace tolvar
