#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "records/records.h"

namespace tolvar::service {

/// Bounds of what is remembered of the clients' reports.
struct UsageLimits {
  std::size_t names = 100000;    ///< distinct (type, name) pairs
  std::size_t lines = 1000;      ///< sampled lines; the oldest go first
  std::size_t textBytes = 1024;  ///< a longer name is dropped, a longer line cut
};

/// What clients reported. `droppedHits` and `droppedLines` are what reporters lost, plus what did
/// not fit here; lines that gave way to newer ones were delivered and are not counted as dropped.
struct Usage {
  std::vector<ravel::ReportCount> counts;  ///< ascending by type, then name
  std::vector<std::string> lines;          ///< oldest first
  std::uint64_t droppedHits = 0;
  std::uint64_t droppedLines = 0;

  bool isEmpty() const noexcept {
    return counts.empty() && lines.empty() && droppedHits == 0 && droppedLines == 0;
  }
};

/// Sums hits per (type, name) and keeps the last sampled lines, in bounded memory. Sums saturate.
/// All operations may be called from any thread.
class UsageLog {
 public:
  explicit UsageLog(UsageLimits limits = {}) : _limits(limits) {}

  void addCounts(const std::vector<ravel::ReportCount>& counts, std::uint64_t dropped);
  void addLines(const std::vector<std::string>& lines, std::uint64_t dropped);

  /// Copy of everything remembered.
  Usage snapshot() const;

  /// Gives everything remembered away and forgets it.
  Usage take();

 private:
  Usage copyLocked() const;

  const UsageLimits _limits;
  mutable std::mutex _mutex;
  // Guarded by _mutex.
  std::map<std::pair<ravel::ReportType, std::string>, std::uint64_t> _hits;
  std::deque<std::string> _lines;
  std::uint64_t _droppedHits = 0;
  std::uint64_t _droppedLines = 0;
};

}  // namespace tolvar::service
