#include "src/index/lookup_snapshot.h"

#include <utility>

namespace tolvar {
namespace {

std::shared_ptr<const RangeIndex> noRanges() {
  return std::make_shared<const RangeIndex>(RangeIndex::build({}));
}

std::shared_ptr<const CodeNames> noCodes() { return std::make_shared<const CodeNames>(); }

}  // namespace

std::unique_ptr<const LookupSnapshot> LookupSnapshot::empty() {
  return make(noRanges(), noCodes());
}

std::unique_ptr<const LookupSnapshot> LookupSnapshot::withRanges(
    const LookupSnapshot* previous, std::shared_ptr<const RangeIndex> newRanges) {
  return make(std::move(newRanges), previous != nullptr ? previous->codes : noCodes());
}

std::unique_ptr<const LookupSnapshot> LookupSnapshot::withCodes(
    const LookupSnapshot* previous, std::shared_ptr<const CodeNames> newCodes) {
  return make(previous != nullptr ? previous->ranges : noRanges(), std::move(newCodes));
}

std::unique_ptr<const LookupSnapshot> LookupSnapshot::make(std::shared_ptr<const RangeIndex> ranges,
                                                           std::shared_ptr<const CodeNames> codes) {
  auto names = std::make_shared<const TupleNames>(*ranges, codes);
  const RangeLookup& finder = *ranges;
  return std::make_unique<const LookupSnapshot>(
      LookupSnapshot{finder, std::move(ranges), std::move(codes), std::move(names)});
}

}  // namespace tolvar
