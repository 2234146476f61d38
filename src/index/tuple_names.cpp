#include "src/index/tuple_names.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "src/side_task.h"

namespace tolvar {
namespace {

/// Row sizes to choose from, in bytes: a row touches no more cache lines than it has to.
constexpr std::array<std::size_t, 5> kRowSizes = {32, 64, 128, 192, 256};

/// Of this many tuples, one may have names that do not fit into a row: few enough for the lookups
/// of popular places, which nobody can tell beforehand, not to take the longer way.
constexpr std::size_t kApartShare = 4096;

/// From so many tuples on, a second thread saves more than it costs.
constexpr std::size_t kParallelTuples = std::size_t{1} << 14;

/// Tuples whose names are looked for before their turn, so that the waits for memory are shared.
constexpr std::size_t kAhead = 8;

/// Of the code tables and the labels.
using Ids = std::array<std::uint64_t, CodeNames::kTypes + 1>;

Ids idsOf(const ravel::IPInfo& info) noexcept {
  return {info.country, info.province, info.city,    static_cast<std::uint64_t>(info.district),
          info.extend,  info.oper,     info.nettype, info.apn,
          info.flable};
}

template <class Places>
std::uint64_t textBytes(const Places& places) {
  std::uint64_t bytes = 0;
  for (const CodeNames::Place& place : places) bytes += place.length;
  return bytes;
}

/// The ends in a row's text, and the lengths, are told by a byte each.
static_assert(kRowSizes.back() - TupleNames::kNames < TupleNames::kApart);

bool fits(std::uint64_t text, std::size_t rowBytes) noexcept {
  return text <= rowBytes - TupleNames::kNames;
}

}  // namespace

TupleNames::TupleNames(const RangeIndex& ranges, std::shared_ptr<const CodeNames> codes)
    : _codes(std::move(codes)), _tuples(ranges.tupleCount()) {
  PlacesOfAll places(_tuples - 1);
  inHalves(places.size(), kParallelTuples, [&](std::size_t begin, std::size_t end) {
    findPlaces(ranges, begin, end, places.data());
  });
  chooseSize(places);
  // At least a line more, so that the last name is followed by readable bytes too.
  _lines.resize(_tuples * _rowBytes / sizeof(Line) + 2);
  _ends.resize(_tuples);
  inHalves(places.size(), kParallelTuples,
           [&](std::size_t begin, std::size_t end) { write(places, begin, end); });
}

/// Of the tuples `begin` + 1 to `end`.
void TupleNames::findPlaces(const RangeIndex& ranges, std::size_t begin, std::size_t end,
                            Places* all) const {
  const auto idsOfEntry = [&](std::size_t entry) {
    return idsOf(ranges.info(static_cast<std::uint32_t>(entry + 1)));
  };
  // Tuples are numbered as they appear in the table, so neighbours share most of their ids.
  Ids known{};
  Places places{};
  for (std::size_t i = 0; i < kNames - 1; ++i) {
    places[i] = _codes->findPlace(static_cast<int>(i), 0);
  }
  for (std::size_t entry = begin; entry < end; ++entry) {
    const Ids ids = idsOfEntry(entry);
    if (entry + kAhead < end) {
      const Ids later = idsOfEntry(entry + kAhead);
      for (std::size_t i = 0; i < kNames - 1; ++i) {
        if (later[i] != ids[i]) _codes->prefetch(static_cast<int>(i), later[i]);
      }
    }
    for (std::size_t i = 0; i < kNames; ++i) {
      if (ids[i] == known[i]) continue;
      known[i] = ids[i];
      places[i] = i < kNames - 1 ? _codes->findPlace(static_cast<int>(i), ids[i])
                                 : _codes->labelPlace(static_cast<std::uint32_t>(ids[i]));
    }
    all[entry] = places;
  }
}

void TupleNames::chooseSize(const PlacesOfAll& places) {
  std::array<std::size_t, kRowSizes.size()> tooSmall{};
  std::array<std::uint32_t, kNames> longest{};
  for (const Places& names : places) {
    const std::uint64_t text = textBytes(names);
    for (std::size_t i = 0; i < kRowSizes.size(); ++i) tooSmall[i] += !fits(text, kRowSizes[i]);
    for (std::size_t i = 0; i < kNames; ++i) longest[i] = std::max(longest[i], names[i].length);
  }
  for (std::size_t i = 0; i < kNames; ++i) _longNames |= unsigned{longest[i] > kShortName} << i;
  const auto chosen = std::find_if(tooSmall.begin(), tooSmall.end() - 1, [&](std::size_t apart) {
    return apart <= _tuples / kApartShare;
  });
  _rowBytes = kRowSizes[static_cast<std::size_t>(chosen - tooSmall.begin())];
  // Rows show these by address, so they may not move.
  _apart.resize(tooSmall[static_cast<std::size_t>(chosen - tooSmall.begin())]);
}

/// Of the tuples `begin` + 1 to `end`.
void TupleNames::write(const PlacesOfAll& places, std::size_t begin, std::size_t end) {
  const auto isApart = [this](const Places& names) { return !fits(textBytes(names), _rowBytes); };
  Views* apart = _apart.data();
  if (!_apart.empty()) {
    const auto first = places.begin();
    apart += std::count_if(first, first + static_cast<std::ptrdiff_t>(begin), isApart);
  }
  Byte* row = _lines.data()->bytes + begin * _rowBytes;
  for (std::size_t entry = begin; entry < end; ++entry) {
    row += _rowBytes;
    if (entry + kAhead < end) {
      for (const CodeNames::Place place : places[entry + kAhead]) _codes->prefetch(place);
    }
    IPNameView::Ends& ends = _ends[entry + 1];
    if (!isApart(places[entry])) {
      ends = writeText(places[entry], row);
      continue;
    }
    Views& views = *apart++;
    for (std::size_t i = 0; i < kNames; ++i) views[i] = _codes->view(places[entry][i]);
    const std::string_view* const first = views.data();
    row[0] = kApart;
    std::memcpy(row + kNames, &first, sizeof first);
    ends.apart = 1;
  }
}

IPNameView::Ends TupleNames::writeText(const Places& places, Byte* row) const {
  // Made aside of whole pieces, for whose copies the names' lengths need not be looked at.
  std::array<char, kRowSizes.back() + kReadableBytes> text;
  IPNameView::Ends ends;
  std::size_t end = 0;
  for (std::size_t i = 0; i < kNames; ++i) {
    const std::string_view name = _codes->view(places[i]);
    std::size_t copied = 0;
    do {
      std::memcpy(text.data() + end + copied, name.data() + copied, kReadableBytes);
      copied += kReadableBytes;
    } while (copied < name.size());
    row[i] = static_cast<Byte>(name.size());
    end += name.size();
    ends.of[i] = static_cast<std::uint8_t>(end);
  }
  std::memcpy(row + kNames, text.data(), end);
  return ends;
}

}  // namespace tolvar
