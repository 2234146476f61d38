#include "service/usage_log.h"

namespace tolvar::service {
namespace {

void addSaturating(std::uint64_t& sum, std::uint64_t value) {
  sum = value > UINT64_MAX - sum ? UINT64_MAX : sum + value;
}

/// The type comes from another machine.
bool isKnown(ravel::ReportType type) {
  const auto number = static_cast<std::int32_t>(type);
  return number >= ravel::ECountry && number <= ravel::EOperator;
}

}  // namespace

void UsageLog::addCounts(const std::vector<ravel::ReportCount>& counts, std::uint64_t dropped) {
  const std::lock_guard lock(_mutex);
  addSaturating(_droppedHits, dropped);
  for (const ravel::ReportCount& report : counts) {
    auto entry = _hits.find({report.info.type, report.info.name});
    const bool isRoom = _hits.size() < _limits.names && isKnown(report.info.type) &&
                        report.info.name.size() <= _limits.textBytes;
    if (entry == _hits.end() && isRoom)
      entry = _hits.try_emplace({report.info.type, report.info.name}).first;
    addSaturating(entry == _hits.end() ? _droppedHits : entry->second, report.count);
  }
}

void UsageLog::addLines(const std::vector<std::string>& lines, std::uint64_t dropped) {
  const std::lock_guard lock(_mutex);
  addSaturating(_droppedLines, dropped);
  for (const std::string& line : lines) {
    _lines.push_back(line.substr(0, _limits.textBytes));
    if (_lines.size() > _limits.lines) _lines.pop_front();
  }
}

Usage UsageLog::snapshot() const {
  const std::lock_guard lock(_mutex);
  return copyLocked();
}

Usage UsageLog::take() {
  const std::lock_guard lock(_mutex);
  Usage usage = copyLocked();
  _hits.clear();
  _lines.clear();
  _droppedHits = 0;
  _droppedLines = 0;
  return usage;
}

Usage UsageLog::copyLocked() const {
  Usage usage;
  usage.counts.reserve(_hits.size());
  for (const auto& [key, hits] : _hits) {
    ravel::ReportCount& report = usage.counts.emplace_back();
    report.info.type = key.first;
    report.info.name = key.second;
    report.count = hits;
  }
  usage.lines.assign(_lines.begin(), _lines.end());
  usage.droppedHits = _droppedHits;
  usage.droppedLines = _droppedLines;
  return usage;
}

}  // namespace tolvar::service
