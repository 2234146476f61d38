#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <string>
#include <string_view>
#include <vector>

#include "records/records.h"
#include "report/count_table.h"
#include "report/shards.h"

namespace tolvar {

/// Counts waiting for delivery, by name, and how many hits could not be counted.
struct PendingCounts {
  /// Adds hits of a name; when there is no room for another name they count as dropped.
  void add(ravel::ReportType type, std::string_view name, std::uint64_t count) noexcept;

  CountTable table;
  std::uint64_t dropped = 0;
};

/// Lines waiting for delivery, oldest first, and how many were lost.
struct PendingLines {
  std::deque<std::string> lines;
  std::uint64_t dropped = 0;
};

/// What lookup threads report, until the courier collects it.
///
/// `addHit` and `addLine` may be called from any thread at any time, never block and never throw.
/// The other operations are called by one thread at a time, the courier's.
class ReportStore {
 public:
  /// Bounds: distinct names that are gathered between two collections and, again, that wait for
  /// delivery; bytes of one name; lines, and their bytes, that wait in all.
  static constexpr std::size_t kMaxNames = 16384;
  static constexpr std::size_t kMaxNameBytes = 256;
  static constexpr std::int64_t kMaxLines = 65536;
  static constexpr std::int64_t kMaxLineBytes = 4 * 1024 * 1024;

  void addHit(ravel::ReportType type, std::string_view name) noexcept;
  void addLine(std::string_view text, std::int64_t limit) noexcept;

  /// Moves what was counted since the last call into `pending`.
  void collectCounts(PendingCounts* pending);

  /// Moves the lines queued before the call to the end of `pending`, in the order in which they
  /// were queued. Those that there is no memory to move stay for the next call; may throw
  /// std::bad_alloc, losing none. They count against the limits until `linesGone` is told that they
  /// left `pending`.
  void collectLines(PendingLines* pending);
  void linesGone(const std::vector<std::string>& lines) noexcept;

 private:
  struct Line {
    std::uint64_t sequence;
    std::string text;
  };

  struct Counts {
    CountTable table;
    std::uint64_t dropped = 0;
  };

  struct Lines {
    std::vector<Line> queued;
    std::uint64_t dropped = 0;
  };

  void countHit(Counts& counts, ravel::ReportType type, std::string_view name) noexcept;
  bool reserveName() noexcept;
  bool reserveLine(std::int64_t bytes, std::int64_t limit) noexcept;
  void releaseLines(std::int64_t count, std::int64_t bytes) noexcept;

  Shards<Counts> _counts;
  Shards<Lines> _lines;

  // Touched by new names and by lines only, not by every hit.
  alignas(128) std::atomic<std::size_t> _names{0};
  std::atomic<std::uint64_t> _sequence{0};
  std::atomic<std::int64_t> _waitingLines{0};
  std::atomic<std::int64_t> _waitingBytes{0};
  std::atomic<std::uint64_t> _droppedHits{0};
  std::atomic<std::uint64_t> _droppedLines{0};

  // The collecting thread's own.
  std::vector<CountTable> _spareTables{Shards<Counts>::kCount};
  std::vector<Line> _heldBack;
};

}  // namespace tolvar
