#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "platform/huge_pages.h"
#include "records/records.h"

namespace tolvar {

/// Attributes of `range` as a lookup reports them: `place` split by truncating signed division,
/// `apn` and `flable` cut to their low 8 bits.
ravel::IPInfo infoOf(const ravel::IPProperty& range) noexcept;

/// The distinct attribute tuples of an IP table, numbered in the order they first appear, from 1
/// on. Number 0 is the all-zero tuple "no range", which no range has. Immutable.
class TupleNumbers {
 public:
  /// Numbers the tuples of `ranges`. Two ranges share a number exactly when infoOf answers the same
  /// for both. Takes linear time. Throws std::bad_alloc.
  explicit TupleNumbers(std::span<const ravel::IPProperty> ranges);

  /// The number of each range's tuple, in the order of the ranges.
  std::span<const std::uint32_t> ofRanges() const noexcept { return _numbers; }

  /// Numbers given, 0 included: valid ones are below it.
  std::size_t count() const noexcept { return _keys.size(); }

  /// Attributes of the tuple `number`.
  ravel::IPInfo info(std::uint32_t number) const noexcept { return unpack(_keys[number]); }

 private:
  friend ravel::IPInfo infoOf(const ravel::IPProperty& range) noexcept;

  /// A tuple in a form that is quick to compare, in one cache line.
  struct alignas(32) Key {
    std::uint64_t place;
    std::uint64_t extendAndOper;
    std::uint64_t rest;  ///< nettype, apn, flable

    bool operator==(const Key& other) const noexcept {
      return ((place ^ other.place) | (extendAndOper ^ other.extendAndOper) |
              (rest ^ other.rest)) == 0;
    }
  };

  /// Of a hash table with open addressing. It keeps the tuples' hashes, so that few of the tuples
  /// themselves are looked at, and none to make it larger.
  struct Slot {
    std::uint32_t hash;
    std::uint32_t number;  ///< 0: free
  };
  using Slots = std::vector<Slot, qel::HugePageAllocator<Slot>>;

  static Key keyOf(const ravel::IPProperty& range) noexcept;
  static std::uint32_t hashOf(const Key& key) noexcept;
  static ravel::IPInfo unpack(const Key& key) noexcept;

  void numberBlock(std::span<const ravel::IPProperty> ranges, Slots* slots, std::uint32_t* numbers);
  std::uint32_t numberOf(const Key& key, std::uint32_t hash, std::span<Slot> slots);

  std::vector<Key, qel::HugePageAllocator<Key>> _keys;  ///< by number
  std::vector<std::uint32_t, qel::HugePageAllocator<std::uint32_t>> _numbers;
};

}  // namespace tolvar
