#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include "records/records.h"
#include "src/index/index_block.h"
#include "src/index/range_lookup.h"

namespace tolvar {

/// Answers which range of an IP table contains an address, in a fixed handful of memory accesses.
///
/// The ranges are turned into break points: the addresses at which the answer changes, each with
/// the number of the attribute tuple that holds from there on. Tuple 0 means "no range" and is all
/// zeros. Distinct attribute tuples are stored once, as ready `IPInfo` records.
///
/// All lies in one IndexBlock. Words and leaves are told by their distance from the directory,
/// which is what the words next to the block's base are:
///
///   words   first the directory, 65,536 words, one for each value of the upper 16 bits of an
///           address. Below it, with negative numbers, come the sub-directories of crowded buckets.
///             bit 4 = 0   leaf of n keys: n in bits 0-3, 8-byte unit of its place in bits 5-31
///             bit 4 = 1   sub-directory: number of the next word to read = (bits 5-31, signed)
///                         + (low 16 address bits >> bits 0-3)
///   lines   of 64 bytes, first one for each tuple, then those with leaves.
///           Tuple: in byte 8 the leaf without keys for blocks that are all this tuple, from
///           byte 16 on its `IPInfo`.
///           Leaf: n signed 16-bit keys (the low 16 address bits, less 32768, of the break points
///           inside its block of addresses; ascending), then n + 1 24-bit tuple numbers: number i
///           holds from key i - 1 on.
///
/// Thread safety: every operation of a finished index is const and may be called from any number of
/// threads at once. None allocates, locks or calls the operating system.
///
/// Invariants:
///  1. A finished index never changes.
///  2. Exactly one slot of one leaf answers each of the 2^32 addresses.
///  3. A leaf has at most 12 keys, strictly ascending; none is the first address of its block.
///  4. A leaf never straddles a cache line; nor do the 24 bytes from its start that a count reads.
///  5. Words, leaves and tuples are reached by number only, and every number stored is in bounds.
class RangeIndex : public RangeLookup {
 public:
  /// Builds the index of `ranges`, which are in the order of IPProperty's operator<. Both bounds of
  /// a range are inclusive, in host order. Where ranges overlap, the first in order that contains
  /// an address answers for it; a range whose end lies below its start is ignored. `apn` and
  /// `flable` are kept as their low 8 bits; `place` is split by truncating signed division.
  ///
  /// Takes linear time. Throws std::bad_alloc, and std::length_error when the index needs more than
  /// 2^26 words or 1 GiB of directory, tuples and leaves.
  static RangeIndex build(std::span<const ravel::IPProperty> ranges);

  RangeIndex(RangeIndex&&) noexcept = default;
  RangeIndex& operator=(RangeIndex&&) noexcept = default;
  RangeIndex(const RangeIndex&) = delete;
  RangeIndex& operator=(const RangeIndex&) = delete;

  /// Ranges the index was built from, ignored ones included.
  std::size_t rangeCount() const noexcept { return _rangeCount; }

  /// Distinct attribute tuples, tuple 0 included: valid numbers are below it.
  std::size_t tupleCount() const noexcept { return _tupleCount; }

  /// Lines of 64 bytes that hold leaves.
  std::size_t leafLineCount() const noexcept { return _block.lines() - _tupleCount; }

  /// Memory held, in bytes.
  std::size_t memoryBytes() const noexcept { return sizeof *this + _block.memoryBytes(); }

 private:
  friend class RangeIndexBuilder;

  RangeIndex() = default;

  IndexBlock _block;  ///< what _base points into
  std::size_t _tupleCount = 0;
  std::size_t _rangeCount = 0;
};

}  // namespace tolvar
