#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "platform/huge_pages.h"
#include "records/records.h"

namespace tolvar {

/// Numbers distinct attribute tuples in the order they first appear, from 1 on; 0 is the all-zero
/// tuple "no range" and never handed out. A hash table over tuples that are stored elsewhere.
/// Confined to one thread.
class TuplePool {
 public:
  TuplePool();

  /// Attributes of `range` as a lookup reports them: `place` split by truncating signed division,
  /// `apn` and `flable` cut to their low 8 bits.
  static ravel::IPInfo unpack(const ravel::IPProperty& range) noexcept;

  /// Number of the tuple of `range`; `isNew` says whether it was handed out for the first time. Two
  /// ranges share a number exactly when `unpack` answers the same for both. Throws std::bad_alloc.
  std::uint32_t number(const ravel::IPProperty& range, bool* isNew) {
    return number(range, kNotHashed, isNew);
  }

  /// The same in two steps, with other work in between that the wait for memory hides behind: the
  /// first answers what the second takes as `hash`.
  std::uint64_t prepare(const ravel::IPProperty& range) const noexcept;
  std::uint32_t number(const ravel::IPProperty& range, std::uint64_t hash, bool* isNew);

 private:
  struct Key {
    std::int64_t place;
    std::uint32_t extend;
    std::uint32_t oper;
    std::uint32_t nettype;
    std::uint32_t apnAndFlable;

    bool operator==(const Key&) const = default;
  };
  struct Slot {
    Key key;
    std::uint32_t number;  ///< 0: free
  };

  /// A tuple whose hash is this one is looked for without preparation.
  static constexpr std::uint64_t kNotHashed = 0;

  static Key keyOf(const ravel::IPProperty& range) noexcept;
  static std::uint64_t hash(const Key& key) noexcept;
  void grow();

  std::vector<Slot, qel::HugePageAllocator<Slot>> _slots;
  std::uint32_t _used = 0;
  Slot _last{};
};

}  // namespace tolvar
