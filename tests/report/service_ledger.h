#pragma once

#include <algorithm>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "platform/exception.h"
#include "tests/support/fake_service.h"

namespace tolvar_test {

/// What a service has received of reports, and how it behaves towards them.
class ServiceLedger {
 public:
  ServiceLedger() {
    _service->reportCounts = [this](const auto& counts, std::uint64_t dropped) {
      Lock lock(_mutex);
      ++_countCalls;
      answer(lock);
      for (const auto& count : counts) _counts[{count.info.type, count.info.name}] += count.count;
      _largestCall = std::max(_largestCall, counts.size());
      _droppedHits += dropped;
    };
    _service->reportLines = [this](const auto& lines, std::uint64_t dropped) {
      Lock lock(_mutex);
      ++_lineCalls;
      answer(lock);
      _lines.insert(_lines.end(), lines.begin(), lines.end());
      _droppedLines += dropped;
    };
  }

  /// Lets go of calls that hang and waits until they have returned.
  ~ServiceLedger() {
    release();
    Lock lock(_mutex);
    _changed.wait(lock, [this] { return _hanging == 0; });
  }

  ravel::TolvarPrx proxy() const { return fakeProxy(_service); }

  /// The next `calls` calls fail, or as many after `successes` that succeed.
  void failNext(int calls, int successes = 0) {
    Lock lock(_mutex);
    _failures = calls;
    _successesFirst = successes;
  }

  /// Calls hang from now on, until `release`; then they succeed.
  void hang() {
    Lock lock(_mutex);
    _hang = true;
  }
  void release() {
    Lock lock(_mutex);
    _hang = false;
    _changed.notify_all();
  }

  void awaitHangingCall() {
    Lock lock(_mutex);
    _changed.wait(lock, [this] { return _hanging != 0; });
  }

  std::uint64_t count(ravel::ReportType type, const std::string& name) const {
    Lock lock(_mutex);
    const auto found = _counts.find({type, name});
    return found == _counts.end() ? 0 : found->second;
  }
  std::uint64_t hits() const {
    Lock lock(_mutex);
    std::uint64_t sum = 0;
    for (const auto& [key, count] : _counts) sum += count;
    return sum;
  }
  std::size_t names() const { return locked(_counts).size(); }
  std::vector<std::string> lines() const { return locked(_lines); }
  std::uint64_t droppedHits() const { return locked(_droppedHits); }
  std::uint64_t droppedLines() const { return locked(_droppedLines); }
  int countCalls() const { return locked(_countCalls); }
  int lineCalls() const { return locked(_lineCalls); }
  std::size_t largestCall() const { return locked(_largestCall); }

 private:
  using Lock = std::unique_lock<std::mutex>;

  template <class T>
  T locked(const T& value) const {
    Lock lock(_mutex);
    return value;
  }

  void answer(Lock& lock) {
    ++_hanging;
    _changed.notify_all();
    _changed.wait(lock, [this] { return !_hang; });
    --_hanging;
    _changed.notify_all();
    if (_failures == 0 || _successesFirst-- > 0) return;
    --_failures;
    throw qel::ZU_Exception("the service is not there");
  }

  const std::shared_ptr<FakeService> _service = std::make_shared<FakeService>();
  mutable std::mutex _mutex;
  std::condition_variable _changed;
  std::map<std::pair<int, std::string>, std::uint64_t> _counts;
  std::vector<std::string> _lines;
  std::uint64_t _droppedHits = 0;
  std::uint64_t _droppedLines = 0;
  std::size_t _largestCall = 0;
  int _countCalls = 0;
  int _lineCalls = 0;
  int _failures = 0;
  int _successesFirst = 0;
  int _hanging = 0;
  bool _hang = false;
};

}  // namespace tolvar_test
