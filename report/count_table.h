#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "records/records.h"

namespace tolvar {

/// Hit counts by (type, name): a hash table with linear probing, at most half full. Used by one
/// thread at a time.
class CountTable {
 public:
  /// Adds `hits` to a name that is in the table. Answers false when it is not.
  bool add(ravel::ReportType type, std::string_view name, std::uint64_t hits) noexcept;

  /// Puts a name that is not in the table into it. May throw std::bad_alloc, changing nothing.
  void insert(ravel::ReportType type, std::string_view name, std::uint64_t hits);

  /// Names in the table.
  std::size_t size() const noexcept { return _size; }

  /// Takes all names out, keeping a moderate amount of memory. `use(type, name, count)` is called
  /// for each and does not throw.
  template <class Use>
  void drain(Use use) {
    for (Slot& slot : _slots) {
      if (slot.hash == kFree) continue;
      use(slot.type, slot.name, slot.count);
      slot = Slot{};
    }
    if (_slots.size() > kKeptSlots) std::vector<Slot>().swap(_slots);
    _size = 0;
  }

  /// All names in ascending order of type, then name.
  std::vector<ravel::ReportCount> sorted() const;

  void swap(CountTable& other) noexcept {
    _slots.swap(other._slots);
    std::swap(_size, other._size);
  }

 private:
  static constexpr std::uint64_t kFree = 0;
  static constexpr std::size_t kFirstSlots = 64;
  static constexpr std::size_t kKeptSlots = 1024;

  struct Slot {
    std::uint64_t hash = kFree;
    std::uint64_t count = 0;
    std::string name;
    ravel::ReportType type = ravel::ECountry;
  };

  Slot& probe(std::uint64_t hash, ravel::ReportType type, std::string_view name) noexcept;
  void grow();

  std::vector<Slot> _slots;
  std::size_t _size = 0;
};

}  // namespace tolvar
