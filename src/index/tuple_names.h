#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string_view>
#include <vector>

#include "include/name_view.h"
#include "platform/huge_pages.h"
#include "src/index/code_names.h"
#include "src/index/range_index.h"

namespace tolvar {

/// The names of every attribute tuple of a RangeIndex, resolved once; a name that the code tables
/// do not have is empty. The text of a tuple's names lies together in a row, because nine names at
/// nine places would be nine waits for memory. All rows have the same size, chosen for the table so
/// that nearly all tuples' text fits, with the names' lengths before it; the names of the others
/// are shown where the CodeNames have them. Views are made without the rows: where the names end in
/// them lies in a table of its own, which is far smaller and so nearer to the processor.
///
/// Immutable: every operation may be called from any number of threads at once, and none
/// allocates, locks or calls the operating system.
class TupleNames {
 public:
  /// From the first byte of every name on, this many may be read: whoever copies short names need
  /// not look at their lengths.
  static constexpr std::size_t kReadableBytes = CodeNames::kReadableBytes;

  /// A longer name is a long one, in bytes: the room that a std::string has in itself.
  static constexpr std::size_t kShortName = 15;

  /// Resolves the tuples of `ranges` (used during the call only) with `codes`, which the object
  /// keeps and which is not null. Throws std::bad_alloc.
  TupleNames(const RangeIndex& ranges, std::shared_ptr<const CodeNames> codes);

  /// The names of `tuple`, a number below tupleCount(). Tuple 0 has nine empty ones. Valid as long
  /// as the object.
  IPNameView row(std::uint32_t tuple) const noexcept {
    return IPNameView(text(tuple).names, _ends[tuple]);
  }

  static constexpr std::size_t kNames = IPNameView::kNames;

  /// A tuple's names one behind the other, and their lengths in bytes. The first length is kApart
  /// where the names do not lie like that.
  struct Text {
    const std::uint8_t* lengths;
    const char* names;
  };
  static constexpr std::uint8_t kApart = 255;

  /// The same as row(tuple), for a copy. Valid as long as the object.
  Text text(std::uint32_t tuple) const noexcept {
    const Byte* const row = rowOf(tuple);
    return {row, reinterpret_cast<const char*>(row + kNames)};
  }

  /// Bit i is set where some tuple's name i is no short one.
  unsigned longNames() const noexcept { return _longNames; }

  std::size_t tupleCount() const noexcept { return _tuples; }

 private:
  using Byte = unsigned char;
  struct alignas(64) Line {
    Byte bytes[64];
  };
  static_assert(kReadableBytes <= sizeof(Line));

  using Places = std::array<CodeNames::Place, kNames>;
  using Views = std::array<std::string_view, kNames>;

  /// Of all tuples but 0, in order.
  using PlacesOfAll = std::vector<Places, qel::HugePageAllocator<Places>>;

  const Byte* rowOf(std::uint32_t tuple) const noexcept {
    return _lines.data()->bytes + std::size_t{tuple} * _rowBytes;
  }

  void findPlaces(const RangeIndex& ranges, std::size_t begin, std::size_t end, Places* all) const;
  void chooseSize(const PlacesOfAll& places);
  void write(const PlacesOfAll& places, std::size_t begin, std::size_t end);
  IPNameView::Ends writeText(const Places& places, Byte* row) const;

  std::shared_ptr<const CodeNames> _codes;
  std::size_t _tuples;
  std::size_t _rowBytes = 0;
  unsigned _longNames = 0;
  std::vector<Line, qel::HugePageAllocator<Line>> _lines;  ///< the rows
  std::vector<IPNameView::Ends, qel::HugePageAllocator<IPNameView::Ends>> _ends;
  std::vector<Views> _apart;  ///< names of the tuples whose text does not fit
};

}  // namespace tolvar
