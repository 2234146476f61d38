#pragma once

#include <memory>

#include "src/index/code_names.h"
#include "src/index/range_index.h"
#include "src/index/tuple_names.h"

namespace tolvar {

/// Everything a lookup reads, in versions that belong together: `names` was resolved from exactly
/// these `ranges` and `codes`. No member is null. Immutable once published; parts are shared
/// between successive snapshots.
struct LookupSnapshot {
  RangeLookup finder;  ///< of `ranges`; here it spares a lookup one access to memory
  std::shared_ptr<const RangeIndex> ranges;
  std::shared_ptr<const CodeNames> codes;
  std::shared_ptr<const TupleNames> names;

  /// An empty table without names.
  static std::unique_ptr<const LookupSnapshot> empty();

  /// `newRanges` under the code tables of `previous` (null: without names). Throws std::bad_alloc.
  static std::unique_ptr<const LookupSnapshot> withRanges(
      const LookupSnapshot* previous, std::shared_ptr<const RangeIndex> newRanges);

  /// The ranges of `previous` (null: none) under `newCodes`. Throws std::bad_alloc.
  static std::unique_ptr<const LookupSnapshot> withCodes(const LookupSnapshot* previous,
                                                         std::shared_ptr<const CodeNames> newCodes);

  /// Both new. Throws std::bad_alloc.
  static std::unique_ptr<const LookupSnapshot> make(std::shared_ptr<const RangeIndex> ranges,
                                                    std::shared_ptr<const CodeNames> codes);
};

}  // namespace tolvar
