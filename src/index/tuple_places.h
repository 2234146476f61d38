#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "platform/huge_pages.h"
#include "src/index/code_names.h"
#include "src/index/range_index.h"

namespace tolvar {

/// Where a CodeNames has the names of every attribute tuple of a RangeIndex, each looked up once.
/// Immutable: may be read by any number of threads at once.
class TuplePlaces {
 public:
  /// Of one tuple: the names of the eight code types in their order, then the label's. One that the
  /// code tables do not have is of length 0.
  using Places = std::array<CodeNames::Place, CodeNames::kNames>;

  /// Both are used during the call only. Throws std::bad_alloc.
  TuplePlaces(const RangeIndex& ranges, const CodeNames& codes);

  /// `tuple` is below count(). Tuple 0 has nine empty names.
  const Places& operator[](std::size_t tuple) const noexcept { return _places[tuple]; }

  std::size_t count() const noexcept { return _places.size(); }

  /// Tuples whose text is fetched from memory before its turn, so that the waits are shared.
  static constexpr std::size_t kAhead = 8;

  /// From so many tuples on, a second thread saves more than it costs.
  static constexpr std::size_t kParallel = std::size_t{1} << 14;

 private:
  void find(const RangeIndex& ranges, const CodeNames& codes, std::size_t begin, std::size_t end);

  std::vector<Places, qel::HugePageAllocator<Places>> _places;
};

/// Bytes of all names together.
inline std::uint64_t textBytes(const TuplePlaces::Places& places) noexcept {
  std::uint64_t bytes = 0;
  for (const CodeNames::Place& place : places) bytes += place.length;
  return bytes;
}

}  // namespace tolvar
