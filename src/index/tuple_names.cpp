#include "src/index/tuple_names.h"

#include <algorithm>
#include <utility>

namespace tolvar {

TupleNames::TupleNames(const RangeIndex& ranges, std::shared_ptr<const CodeNames> codes)
    : _codes(std::move(codes)), _text(_codes->text()), _rows(ranges.tupleCount()) {
  // Tuples are numbered as they appear in the table, so neighbours share most of their ids.
  std::array<std::uint64_t, kNames> known{};
  std::array<CodeNames::Place, kNames> places{};
  for (std::size_t i = 0; i < kNames - 1; ++i) {
    places[i] = _codes->findPlace(static_cast<int>(i), 0);
  }
  for (std::uint32_t tuple = 1; tuple < _rows.size(); ++tuple) {
    const ravel::IPInfo& info = ranges.info(tuple);
    const std::array<std::uint64_t, kNames> ids = {
        info.country, info.province, info.city,    static_cast<std::uint64_t>(info.district),
        info.extend,  info.oper,     info.nettype, info.apn,
        info.flable};
    for (std::size_t i = 0; i < kNames; ++i) {
      if (ids[i] != known[i]) {
        known[i] = ids[i];
        places[i] = i < kNames - 1 ? _codes->findPlace(static_cast<int>(i), ids[i])
                                   : _codes->labelPlace(static_cast<std::uint32_t>(ids[i]));
      }
      setName(&_rows[tuple], i, places[i]);
    }
  }
  const auto before = [](const CodeNames::Place& a, const CodeNames::Place& b) {
    return a.offset < b.offset;
  };
  std::sort(_long.begin(), _long.end(), before);
}

void TupleNames::setName(Row* line, std::size_t name, CodeNames::Place place) {
  line->offsets[name] = place.offset;
  if (place.length < kLong) {
    line->lengths[name] = static_cast<std::uint16_t>(place.length);
    return;
  }
  line->lengths[name] = kLong;
  line->hasLong = true;
  const auto same = [&](const CodeNames::Place& other) { return other.offset == place.offset; };
  if (std::none_of(_long.begin(), _long.end(), same)) _long.push_back(place);
}

void TupleNames::fillLong(const Row& line, NameRow* names) const noexcept {
  *names = {view(line, 0), view(line, 1), view(line, 2), view(line, 3), view(line, 4),
            view(line, 5), view(line, 6), view(line, 7), view(line, 8)};
}

std::string_view TupleNames::longView(std::uint32_t offset) const noexcept {
  const auto below = [](const CodeNames::Place& place, std::uint32_t wanted) {
    return place.offset < wanted;
  };
  const auto found = std::lower_bound(_long.begin(), _long.end(), offset, below);
  return {_text + found->offset, found->length};
}

std::size_t TupleNames::memoryBytes() const noexcept {
  return sizeof *this + _rows.capacity() * sizeof(Row) +
         _long.capacity() * sizeof(CodeNames::Place);
}

}  // namespace tolvar
