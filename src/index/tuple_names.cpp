#include "src/index/tuple_names.h"

#include <algorithm>
#include <cstring>
#include <limits>
#include <utility>

#include "src/index/row_size.h"
#include "src/side_task.h"

namespace tolvar {
namespace {

/// Where a name ends in a row is told by a byte.
constexpr std::size_t kMostText = std::numeric_limits<std::uint8_t>::max();
static_assert(kMostText < RowSize::kLargest);

bool isApart(const TuplePlaces::Places& places, std::size_t rowBytes) noexcept {
  return textBytes(places) > std::min(rowBytes, kMostText);
}

}  // namespace

TupleNames::TupleNames(const RangeIndex& ranges, std::shared_ptr<const CodeNames> codes)
    : TupleNames(TuplePlaces(ranges, *codes), codes) {}

TupleNames::TupleNames(const TuplePlaces& places, std::shared_ptr<const CodeNames> codes)
    : _codes(std::move(codes)), _ends(places.count()), _messages(*_codes, places) {
  makeRows(places);
  inHalves(places.count(), TuplePlaces::kParallel,
           [&](std::size_t begin, std::size_t end) { write(places, begin, end); });
}

void TupleNames::makeRows(const TuplePlaces& places) {
  RowSize size;
  for (std::size_t tuple = 0; tuple < places.count(); ++tuple) {
    const std::uint64_t text = textBytes(places[tuple]);
    size.count(text <= kMostText ? text : RowSize::kLargest + 1);
  }
  const RowSize::Choice choice = size.choose();
  _rows = Rows(places.count(), choice.bytes);
  // Rows show these by address, so they may not move.
  _apart.resize(choice.apart);
}

/// Of the tuples `begin` to `end` - 1.
void TupleNames::write(const TuplePlaces& places, std::size_t begin, std::size_t end) {
  Views* apart = _apart.data();
  if (!_apart.empty()) {
    for (std::size_t tuple = 0; tuple < begin; ++tuple) {
      if (isApart(places[tuple], _rows.bytes())) ++apart;
    }
  }
  for (std::size_t tuple = begin; tuple < end; ++tuple) {
    if (tuple + TuplePlaces::kAhead < end) {
      for (const CodeNames::Place place : places[tuple + TuplePlaces::kAhead])
        _codes->prefetch(place);
    }
    char* const row = _rows[tuple];
    if (!isApart(places[tuple], _rows.bytes())) {
      _ends[tuple] = writeText(places[tuple], row);
      continue;
    }
    Views& views = *apart++;
    for (std::size_t i = 0; i < views.size(); ++i) views[i] = _codes->view(places[tuple][i]);
    const std::string_view* const first = views.data();
    std::memcpy(row, &first, sizeof first);
    _ends[tuple].apart = 1;
  }
}

IPNameView::Ends TupleNames::writeText(const TuplePlaces::Places& places, char* row) const {
  // Made aside of whole pieces, for whose copies the names' lengths need not be looked at.
  std::array<char, RowSize::kLargest + kReadableBytes> text;
  IPNameView::Ends ends;
  std::size_t end = 0;
  for (std::size_t i = 0; i < places.size(); ++i) {
    const std::string_view name = _codes->view(places[i]);
    std::size_t copied = 0;
    do {
      std::memcpy(text.data() + end + copied, name.data() + copied, kReadableBytes);
      copied += kReadableBytes;
    } while (copied < name.size());
    end += name.size();
    ends.of[i] = static_cast<std::uint8_t>(end);
  }
  std::memcpy(row, text.data(), end);
  return ends;
}

}  // namespace tolvar
