#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

#include "src/index/code_names.h"
#include "src/index/rows.h"
#include "src/index/tuple_places.h"

namespace tolvar {

/// The names of every attribute tuple in the form that is copied fastest: all that a message needs
/// beside one row of the tuple, mostly one cache line, is near to the processor whichever tuple it
/// is. Kinds of names of which a table has few different ones (countries, operators ...) are told
/// in the row by number only; their text lies in slots, which are so small together that they stay
/// in the second-level cache. The text of the other kinds lies in the row itself.
///
///   row     of 32 to 256 bytes: text, then nine references of 2 bytes, one for each name.
///           Kind with slots: where the name's slot begins, in units of 16 bytes.
///           Other kinds: the text's length in the lower byte, its place in the row in the upper.
///           First reference 0xFFFF: the row does not have the tuple's names.
///   slots   of 16 bytes where no name of the kind is longer than 15 bytes, else of 32: the text,
///           and in the last byte its length. First a long slot of the empty name, for all kinds.
///
/// Immutable: every operation of a finished object may be called from any number of threads at
/// once, and none allocates, locks or calls the operating system.
class MessageRows {
 public:
  /// Bytes of a short name and of a long one, at most. Rows have no names beyond that.
  static constexpr std::size_t kShortName = 15;
  static constexpr std::size_t kLongName = 31;

  /// A tuple's row, and where the slots are, which saves a copy the way to them for each name.
  struct Row {
    const char* text;
    const char* references;
    const char* slots;
    unsigned kindsInRows;  ///< bit i is set where the text of name i lies in the row
  };

  /// A name's text and its length in bytes. kShortName + 1 bytes of it may be read, however short
  /// it is, and kLongName + 1 where the kind has long ones.
  struct Name {
    const char* text;
    std::size_t length;
  };

  /// Of the names at `places` in `codes`; both are used during the call only. Throws
  /// std::bad_alloc.
  MessageRows(const CodeNames& codes, const TuplePlaces& places);

  Row row(std::uint32_t tuple) const noexcept {
    const char* const begin = _rows[tuple];
    return {begin, begin + _rows.bytes() - kReferencesBytes, _slots[0], _kindsInRows};
  }

  /// Whether the row has the names of its tuple; very few do not.
  static bool complete(const Row& row) noexcept { return referenceOf<0>(row) != kIncomplete; }

  /// Name `kName` of a complete row, the code types in their order and then the label. `kLong` is
  /// whether longNames() has it.
  template <std::size_t kName, bool kLong>
  static Name name(const Row& row) noexcept {
    const std::size_t reference = referenceOf<kName>(row);
    if ((row.kindsInRows & 1u << kName) != 0) [[unlikely]]
      return {row.text + (reference >> 8), reference & 0xFFu};
    const char* const slot = row.slots + reference * kSlotUnit;
    return {slot, static_cast<unsigned char>(slot[kLong ? kLongName : kShortName])};
  }

  /// Bit i is set where some tuple's name i is longer than kShortName.
  unsigned longNames() const noexcept { return _longNames; }

 private:
  static constexpr std::size_t kNames = CodeNames::kNames;
  static constexpr std::size_t kReferenceBytes = 2;
  static constexpr std::size_t kSlotUnit = kShortName + 1;
  static constexpr std::size_t kReferencesBytes = kNames * kReferenceBytes;
  static constexpr std::uint16_t kIncomplete = 0xFFFF;

  class Kind;
  using Kinds = std::vector<Kind>;

  template <std::size_t kName>
  static std::uint32_t referenceOf(const Row& row) noexcept {
    std::uint16_t reference;
    std::memcpy(&reference, row.references + kName * kReferenceBytes, sizeof reference);
    return reference;
  }

  void makeSlots(const CodeNames& codes, Kinds& kinds);
  void makeRows(const TuplePlaces& places);
  void write(const CodeNames& codes, const Kinds& kinds, const TuplePlaces& places,
             std::size_t begin, std::size_t end);
  void writeRow(const CodeNames& codes, const Kinds& kinds, const TuplePlaces::Places& places,
                char* row) const;

  unsigned _longNames = 0;
  unsigned _kindsInRows = 0;  ///< bit i is set where the text of name i lies in the rows
  Rows _slots;                ///< rows of the size of a long slot
  Rows _rows;
};

}  // namespace tolvar
