#include "report/report_store.h"

#include <algorithm>
#include <exception>
#include <iterator>
#include <new>
#include <utility>

namespace tolvar {

void ReportStore::addHit(ravel::ReportType type, std::string_view name) noexcept {
  const bool counted = _counts.withOne([&](Counts& counts) { countHit(counts, type, name); });
  if (!counted) _droppedHits.fetch_add(1, std::memory_order_relaxed);
}

void ReportStore::countHit(Counts& counts, ravel::ReportType type, std::string_view name) noexcept {
  if (counts.table.add(type, name, 1)) return;
  if (name.size() <= kMaxNameBytes && reserveName()) {
    try {
      counts.table.insert(type, name, 1);
      return;
    } catch (const std::exception&) {
      // No memory for the name: the hit counts as dropped.
      _names.fetch_sub(1, std::memory_order_relaxed);
    }
  }
  ++counts.dropped;
}

bool ReportStore::reserveName() noexcept {
  if (_names.load(std::memory_order_relaxed) >= kMaxNames) return false;
  if (_names.fetch_add(1, std::memory_order_relaxed) < kMaxNames) return true;
  _names.fetch_sub(1, std::memory_order_relaxed);
  return false;
}

void ReportStore::collectCounts(PendingCounts* pending) {
  // An empty table is put in, so that the lookup threads' lock is held for a swap only.
  std::size_t next = 0;
  _counts.withEach([&](Counts& counts) {
    counts.table.swap(_spareTables[next++]);
    pending->dropped += std::exchange(counts.dropped, 0);
  });
  pending->dropped += _droppedHits.exchange(0, std::memory_order_relaxed);
  for (CountTable& table : _spareTables) {
    _names.fetch_sub(table.size(), std::memory_order_relaxed);
    table.drain([pending](ravel::ReportType type, const std::string& name, std::uint64_t count) {
      pending->add(type, name, count);
    });
  }
}

void PendingCounts::add(ravel::ReportType type, std::string_view name,
                        std::uint64_t count) noexcept {
  if (table.add(type, name, count)) return;
  if (table.size() < ReportStore::kMaxNames) {
    try {
      table.insert(type, name, count);
      return;
    } catch (const std::exception&) {
      // No memory for the name: its hits count as dropped.
    }
  }
  dropped += count;
}

bool ReportStore::reserveLine(std::int64_t bytes, std::int64_t limit) noexcept {
  const std::int64_t most = std::min(limit, kMaxLines);
  const std::int64_t lines = _waitingLines.fetch_add(1, std::memory_order_relaxed) + 1;
  const std::int64_t held = _waitingBytes.fetch_add(bytes, std::memory_order_relaxed) + bytes;
  if (lines <= most && held <= kMaxLineBytes) return true;
  releaseLines(1, bytes);
  return false;
}

void ReportStore::releaseLines(std::int64_t count, std::int64_t bytes) noexcept {
  _waitingLines.fetch_sub(count, std::memory_order_relaxed);
  _waitingBytes.fetch_sub(bytes, std::memory_order_relaxed);
}

void ReportStore::addLine(std::string_view text, std::int64_t limit) noexcept {
  const auto bytes = static_cast<std::int64_t>(text.size());
  if (limit > 0 && reserveLine(bytes, limit)) {
    bool queued = false;
    try {
      std::string copy(text);
      queued = _lines.withOne([&](Lines& lines) {
        // Numbered under the shard's lock: see collectLines.
        lines.queued.push_back({_sequence.fetch_add(1), std::move(copy)});
      });
    } catch (const std::exception&) {
      // No memory for the line: it counts as dropped.
    }
    if (queued) return;
    releaseLines(1, bytes);
  }
  _droppedLines.fetch_add(1, std::memory_order_relaxed);
}

void ReportStore::collectLines(PendingLines* pending) {
  // A number below `end` was given out under a shard's lock before that shard is visited here, so
  // the line is found now. Later ones may be found only in part and wait for the next collection;
  // otherwise a thread whose lines went to two shards could see them overtake each other.
  const std::uint64_t end = _sequence.load();
  std::vector<Line>& found = _heldBack;
  _lines.withEach([&](Lines& lines) {
    // Room for all of them first: a line that was moved and is then left behind would come again,
    // empty.
    found.reserve(found.size() + lines.queued.size());
    std::move(lines.queued.begin(), lines.queued.end(), std::back_inserter(found));
    std::vector<Line>().swap(lines.queued);
  });
  std::sort(found.begin(), found.end(),
            [](const Line& a, const Line& b) { return a.sequence < b.sequence; });
  auto line = found.begin();
  try {
    for (; line != found.end() && line->sequence < end; ++line)
      pending->lines.push_back(std::move(line->text));
  } catch (const std::bad_alloc&) {
    // No memory for more: the rest is held back.
  }
  found.erase(found.begin(), line);
  pending->dropped += _droppedLines.exchange(0, std::memory_order_relaxed);
}

void ReportStore::linesGone(const std::vector<std::string>& lines) noexcept {
  std::int64_t bytes = 0;
  for (const std::string& line : lines) bytes += static_cast<std::int64_t>(line.size());
  releaseLines(static_cast<std::int64_t>(lines.size()), bytes);
}

}  // namespace tolvar
