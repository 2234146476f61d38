#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string_view>
#include <vector>

#include "include/lookup_types.h"
#include "platform/huge_pages.h"
#include "src/index/code_names.h"
#include "src/index/range_index.h"

namespace tolvar {

/// The nine names of an attribute tuple; a name that the code tables do not have is empty.
using NameRow = ::IPNameView;

/// The names of every attribute tuple of a RangeIndex, resolved once, in one cache line a tuple.
/// Immutable: every operation may be called from any number of threads at once, and none
/// allocates, locks or calls the operating system.
class TupleNames {
 public:
  /// Resolves the tuples of `ranges` (used during the call only) with `codes`, which the object
  /// keeps and which is not null. Throws std::bad_alloc.
  TupleNames(const RangeIndex& ranges, std::shared_ptr<const CodeNames> codes);

  /// Writes the names of `tuple`, a number below tupleCount(), to `*names`. Tuple 0 has nine empty
  /// ones. The views are valid as long as the CodeNames the object was built with.
  void fill(std::uint32_t tuple, NameRow* names) const noexcept {
    const Row& line = _rows[tuple];
    if (line.hasLong) [[unlikely]] {
      fillLong(line, names);
      return;
    }
    // One by one and in place: a row put together first and copied then is read back in larger
    // pieces than it was written, which processors have to wait for.
    names->country = shortView(line, 0);
    names->province = shortView(line, 1);
    names->city = shortView(line, 2);
    names->district = shortView(line, 3);
    names->extend = shortView(line, 4);
    names->oper = shortView(line, 5);
    names->nettype = shortView(line, 6);
    names->apn = shortView(line, 7);
    names->flable = shortView(line, 8);
  }

  NameRow row(std::uint32_t tuple) const noexcept {
    NameRow names;
    fill(tuple, &names);
    return names;
  }

  std::size_t tupleCount() const noexcept { return _rows.size(); }

  /// Memory held, in bytes, without the CodeNames.
  std::size_t memoryBytes() const noexcept;

 private:
  static constexpr std::size_t kNames = 9;
  /// Stands for a length of this and more; the true one is in _long.
  static constexpr std::uint16_t kLong = UINT16_MAX;

  struct alignas(64) Row {
    std::array<std::uint32_t, kNames> offsets;
    std::array<std::uint16_t, kNames> lengths;
    bool hasLong = false;  ///< some length is kLong
  };
  static_assert(sizeof(Row) == 64);

  std::string_view shortView(const Row& line, std::size_t name) const noexcept {
    return {_text + line.offsets[name], line.lengths[name]};
  }
  std::string_view view(const Row& line, std::size_t name) const noexcept {
    return line.lengths[name] == kLong ? longView(line.offsets[name]) : shortView(line, name);
  }
  void fillLong(const Row& line, NameRow* names) const noexcept;
  std::string_view longView(std::uint32_t offset) const noexcept;
  void setName(Row* line, std::size_t name, CodeNames::Place place);

  std::shared_ptr<const CodeNames> _codes;
  const char* _text;
  std::vector<Row, qel::HugePageAllocator<Row>> _rows;
  std::vector<CodeNames::Place> _long;  ///< places of names of kLong bytes or more, by offset
};

}  // namespace tolvar
