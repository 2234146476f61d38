#include "src/index/tuple_places.h"

#include "src/side_task.h"

namespace tolvar {
namespace {

using Ids = std::array<std::uint64_t, CodeNames::kNames>;

Ids idsOf(const RangeIndex& ranges, std::size_t tuple) noexcept {
  const ravel::IPInfo& info = ranges.info(static_cast<std::uint32_t>(tuple));
  return {info.country, info.province, info.city,    static_cast<std::uint64_t>(info.district),
          info.extend,  info.oper,     info.nettype, info.apn,
          info.flable};
}

}  // namespace

TuplePlaces::TuplePlaces(const RangeIndex& ranges, const CodeNames& codes)
    : _places(ranges.tupleCount()) {
  inHalves(count() - 1, kParallel,
           [&](std::size_t begin, std::size_t end) { find(ranges, codes, begin + 1, end + 1); });
}

/// Of the tuples `begin` to `end` - 1.
void TuplePlaces::find(const RangeIndex& ranges, const CodeNames& codes, std::size_t begin,
                       std::size_t end) {
  // Tuples are numbered as they appear in the table, so neighbours share most of their ids.
  Ids known{};
  Places places{};
  for (int type = 0; type < CodeNames::kTypes; ++type) {
    places[static_cast<std::size_t>(type)] = codes.findPlace(type, 0);
  }
  for (std::size_t tuple = begin; tuple < end; ++tuple) {
    const Ids ids = idsOf(ranges, tuple);
    if (tuple + kAhead < end) {
      const Ids later = idsOf(ranges, tuple + kAhead);
      for (int type = 0; type < CodeNames::kTypes; ++type) {
        const auto i = static_cast<std::size_t>(type);
        if (later[i] != ids[i]) codes.prefetch(type, later[i]);
      }
    }
    for (std::size_t i = 0; i < ids.size(); ++i) {
      if (ids[i] == known[i]) continue;
      known[i] = ids[i];
      places[i] = i < CodeNames::kTypes ? codes.findPlace(static_cast<int>(i), ids[i])
                                        : codes.labelPlace(static_cast<std::uint32_t>(ids[i]));
    }
    _places[tuple] = places;
  }
}

}  // namespace tolvar
