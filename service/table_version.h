#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "records/records.h"
#include "service/table_data.h"

namespace tolvar::service {

/// Most ranges that one page carries; a request for more gets this many.
inline constexpr std::uint32_t kMaxPageSize = 50000;

/// Which ranges a page request gets. `first` and `count` are indexes into `TableVersion::ranges`.
struct PageSlice {
  std::size_t first = 0;
  std::size_t count = 0;
  bool isReset = false;        ///< the page begins the table: forget what was gathered
  std::uint64_t endIndex = 0;  ///< cursor at which the client's download ends
};

/// One version of the table as it is served. Immutable, so it may be shared by all calls and used
/// from any thread.
///
/// The cursor of range i is (timesTamp, i + 1), as one number timesTamp * 2^32 + i + 1; cursors
/// increase strictly. The end index is the cursor of the last range, (timesTamp, 0) without ranges.
class TableVersion {
 public:
  /// Sorts ranges and codes in their order and numbers the ranges. `timesTamp` is not 0.
  /// Throws std::invalid_argument when a range ends before it starts, ranges overlap, there are
  /// more ranges than cursors, or `timesTamp` is 0. Codes are taken as they are.
  TableVersion(TableData data, std::uint32_t timesTamp);

  std::uint32_t timesTamp() const noexcept { return _timesTamp; }

  /// Digest of the ranges, as `contentDigest` computes it.
  const std::string& digest() const noexcept { return _digest; }

  /// Ascending, disjoint, cursors set.
  const std::vector<ravel::IPProperty>& ranges() const noexcept { return _ranges; }

  /// Ascending by type, ID, content.
  const std::vector<ravel::CodeInfo>& codes() const noexcept { return _codes; }

  std::uint64_t endIndex() const noexcept {
    return static_cast<std::uint64_t>(_timesTamp) << 32 | _ranges.size();
  }

  /// The page of at most `size` (1 to kMaxPageSize; larger counts as kMaxPageSize) ranges behind
  /// the cursor high * 2^32 + low.
  ///
  /// A cursor that names a range of this version continues behind it: `isReset` is false, and
  /// behind the last range the page is empty. Every other cursor (0, one of another version, one
  /// past the end) gets the first page, with `isReset` true.
  ///
  /// `endIndex` is this version's, with one exception: a client that arrives with a foreign cursor
  /// at or above it would take the end as reached and publish what little it holds after the reset.
  /// Such a request is answered with an end index just above its own cursor, so that the client
  /// goes on from the page it got and learns the real end index with the next one. A cursor of 2^64
  /// - 1 leaves no room for that.
  ///
  /// Throws std::invalid_argument when `size` is 0 or the cursor is 2^64 - 1.
  PageSlice slice(std::uint32_t high, std::uint32_t low, std::uint32_t size) const;

 private:
  std::uint32_t _timesTamp;
  std::vector<ravel::IPProperty> _ranges;
  std::vector<ravel::CodeInfo> _codes;
  std::string _digest;
};

}  // namespace tolvar::service
