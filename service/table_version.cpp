#include "service/table_version.h"

#include <algorithm>
#include <stdexcept>
#include <utility>

#include "service/address_text.h"
#include "service/content_digest.h"

namespace tolvar::service {
namespace {

std::string rangeText(const ravel::IPProperty& range) {
  return formatIPv4(range.startIP) + "-" + formatIPv4(range.endIP);
}

/// The ranges are sorted.
void checkDisjoint(const std::vector<ravel::IPProperty>& ranges) {
  const ravel::IPProperty* previous = nullptr;
  for (const ravel::IPProperty& range : ranges) {
    if (range.startIP > range.endIP)
      throw std::invalid_argument("range " + rangeText(range) + " ends before it starts");
    if (previous != nullptr && range.startIP <= previous->endIP)
      throw std::invalid_argument("ranges " + rangeText(*previous) + " and " + rangeText(range) +
                                  " overlap");
    previous = &range;
  }
}

template <class T>
void sortIfNeeded(std::vector<T>& items) {
  if (!std::is_sorted(items.begin(), items.end())) std::sort(items.begin(), items.end());
}

}  // namespace

TableVersion::TableVersion(TableData data, std::uint32_t timesTamp)
    : _timesTamp(timesTamp), _ranges(std::move(data.ranges)), _codes(std::move(data.codes)) {
  if (timesTamp == 0) throw std::invalid_argument("a table version needs a time stamp above 0");
  if (_ranges.size() > UINT32_MAX)
    throw std::invalid_argument("a table holds at most 4294967295 ranges");
  sortIfNeeded(_ranges);
  sortIfNeeded(_codes);
  checkDisjoint(_ranges);
  std::uint32_t sequence = 0;
  for (ravel::IPProperty& range : _ranges) {
    range.timesTamp = timesTamp;
    range.sequence = ++sequence;
  }
  _digest = contentDigest(_ranges);
}

PageSlice TableVersion::slice(std::uint32_t high, std::uint32_t low, std::uint32_t size) const {
  if (size == 0) throw std::invalid_argument("page size 0; expected 1 to 50000");
  const std::uint64_t cursor = static_cast<std::uint64_t>(high) << 32 | low;
  if (cursor == UINT64_MAX)
    throw std::invalid_argument("cursor 4294967295/4294967295 is no cursor");

  PageSlice page;
  page.endIndex = endIndex();
  page.isReset = high != _timesTamp || low == 0 || low > _ranges.size();
  if (page.isReset) {
    // The client compares the cursor it sent with the end index before it looks at the page.
    if (cursor >= page.endIndex && !_ranges.empty()) page.endIndex = cursor + 1;
  } else {
    page.first = low;
  }
  page.count = std::min<std::size_t>({size, kMaxPageSize, _ranges.size() - page.first});
  return page;
}

}  // namespace tolvar::service
