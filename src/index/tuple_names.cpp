#include "src/index/tuple_names.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace tolvar {
namespace {

/// Row sizes to choose from, in bytes: a row touches no more cache lines than it has to.
constexpr std::array<std::size_t, 5> kRowSizes = {32, 64, 128, 192, 256};

/// So long is a text whose ends are told by a byte each.
constexpr std::uint64_t kLongestText = 255;

/// Of this many tuples, one may have names that do not fit into a row: few enough for the lookups
/// of popular places, which nobody can tell beforehand, not to take the longer way.
constexpr std::size_t kApartShare = 4096;

template <class Places>
std::uint64_t textBytes(const Places& places) {
  std::uint64_t bytes = 0;
  for (const CodeNames::Place& place : places) bytes += place.length;
  return bytes;
}

bool fits(std::uint64_t text, std::size_t rowBytes) noexcept {
  return text <= std::min<std::uint64_t>(rowBytes, kLongestText);
}

}  // namespace

TupleNames::TupleNames(const RangeIndex& ranges, std::shared_ptr<const CodeNames> codes)
    : _codes(std::move(codes)), _tuples(ranges.tupleCount()) {
  const std::vector<Places> places = findPlaces(ranges);
  chooseSize(places);
  // At least a line more, so that the last name is followed by readable bytes too.
  _lines.resize(_tuples * _rowBytes / sizeof(Line) + 2);
  _ends.reserve(_tuples);
  _ends.emplace_back();
  char* row = _lines.data()->bytes;
  for (const Places& names : places) _ends.push_back(write(names, row += _rowBytes));
}

std::vector<TupleNames::Places> TupleNames::findPlaces(const RangeIndex& ranges) const {
  std::vector<Places> all;
  all.reserve(_tuples);
  // Tuples are numbered as they appear in the table, so neighbours share most of their ids.
  std::array<std::uint64_t, kNames> known{};
  Places places{};
  for (std::size_t i = 0; i < kNames - 1; ++i) {
    places[i] = _codes->findPlace(static_cast<int>(i), 0);
  }
  for (std::uint32_t tuple = 1; tuple < _tuples; ++tuple) {
    const ravel::IPInfo& info = ranges.info(tuple);
    const std::array<std::uint64_t, kNames> ids = {
        info.country, info.province, info.city,    static_cast<std::uint64_t>(info.district),
        info.extend,  info.oper,     info.nettype, info.apn,
        info.flable};
    for (std::size_t i = 0; i < kNames; ++i) {
      if (ids[i] == known[i]) continue;
      known[i] = ids[i];
      places[i] = i < kNames - 1 ? _codes->findPlace(static_cast<int>(i), ids[i])
                                 : _codes->labelPlace(static_cast<std::uint32_t>(ids[i]));
    }
    all.push_back(places);
  }
  return all;
}

void TupleNames::chooseSize(const std::vector<Places>& places) {
  std::array<std::size_t, kRowSizes.size()> tooSmall{};
  for (const Places& names : places) {
    const std::uint64_t text = textBytes(names);
    for (std::size_t i = 0; i < kRowSizes.size(); ++i) tooSmall[i] += !fits(text, kRowSizes[i]);
  }
  const auto chosen = std::find_if(tooSmall.begin(), tooSmall.end() - 1, [&](std::size_t apart) {
    return apart <= _tuples / kApartShare;
  });
  _rowBytes = kRowSizes[static_cast<std::size_t>(chosen - tooSmall.begin())];
  // Rows show these by address, so they may not move.
  _apart.reserve(tooSmall[static_cast<std::size_t>(chosen - tooSmall.begin())]);
}

IPNameView::Ends TupleNames::write(const Places& places, char* row) {
  IPNameView::Ends ends;
  if (!fits(textBytes(places), _rowBytes)) {
    Views& views = _apart.emplace_back();
    for (std::size_t i = 0; i < kNames; ++i) views[i] = _codes->view(places[i]);
    const std::string_view* const first = views.data();
    std::memcpy(row, &first, sizeof first);
    ends.apart = 1;
    return ends;
  }
  std::size_t end = 0;
  for (std::size_t i = 0; i < kNames; ++i) {
    end += _codes->view(places[i]).copy(row + end, places[i].length);
    ends.of[i] = static_cast<std::uint8_t>(end);
  }
  return ends;
}

}  // namespace tolvar
