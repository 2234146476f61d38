#include "src/index/message_rows.h"

#include <algorithm>
#include <array>
#include <numeric>

#include "src/index/name_numbers.h"
#include "src/index/row_size.h"
#include "src/side_task.h"

namespace tolvar {
namespace {

/// Slots of all kinds together, in bytes: a part of a second-level cache that leaves the directory
/// of the index its place there.
constexpr std::size_t kSlotsLimit = std::size_t{256} << 10;

/// Slots of kinds with long names take so many units.
constexpr std::size_t kLongSlotUnits = 2;
static_assert(MessageRows::kLongName + 1 == kLongSlotUnits * (MessageRows::kShortName + 1));

bool hasTooLongName(const TuplePlaces::Places& places) noexcept {
  return std::any_of(places.begin(), places.end(), [](const CodeNames::Place& place) {
    return place.length > MessageRows::kLongName;
  });
}

}  // namespace

/// What a table has of one kind of names, and which slots these get.
class MessageRows::Kind {
 public:
  /// `extent` is where the text of the kind's names lies, those that no tuple has included.
  explicit Kind(CodeNames::Place extent) : _numbers(extent, kSlotsLimit / kSlotUnit) {}

  void add(CodeNames::Place name) {
    _longest = std::max(_longest, name.length);
    _numbers.add(name);
  }

  bool isLong() const noexcept { return _longest > kShortName; }

  /// What slots would take, in units; more than any room where the names are too many.
  std::size_t unitsNeeded() const noexcept {
    return _numbers.few() ? _numbers.names().size() * unitsPerSlot() : SIZE_MAX;
  }

  /// The kind's slots begin at unit `first`.
  void place(std::size_t first) noexcept { _first = first; }

  /// Writes the slots where they were placed.
  void writeSlots(const CodeNames& codes, char* slots) const {
    char* slot = slots + _first * kSlotUnit;
    const std::size_t slotBytes = unitsPerSlot() * kSlotUnit;
    for (const CodeNames::Place& name : _numbers.names()) {
      // To a longer one no row refers.
      if (name.length <= kLongName) {
        std::memcpy(slot, codes.view(name).data(), name.length);
        slot[slotBytes - 1] = static_cast<char>(name.length);
      }
      slot += slotBytes;
    }
  }

  /// Unit at which the slot of `name` begins.
  std::uint16_t reference(CodeNames::Place name) const noexcept {
    const std::size_t number = _numbers.of(name);
    return number == 0 ? std::uint16_t{0}
                       : static_cast<std::uint16_t>(_first + (number - 1) * unitsPerSlot());
  }

 private:
  std::size_t unitsPerSlot() const noexcept { return isLong() ? kLongSlotUnits : 1; }

  NameNumbers _numbers;
  std::uint32_t _longest = 0;
  std::size_t _first = 0;
};

MessageRows::MessageRows(const CodeNames& codes, const TuplePlaces& places) {
  Kinds kinds;
  for (std::size_t i = 0; i < kNames; ++i) kinds.emplace_back(codes.extent(i));
  for (std::size_t tuple = 0; tuple < places.count(); ++tuple) {
    for (std::size_t i = 0; i < kNames; ++i) kinds[i].add(places[tuple][i]);
  }
  for (std::size_t i = 0; i < kNames; ++i) _longNames |= unsigned{kinds[i].isLong()} << i;
  makeSlots(codes, kinds);
  makeRows(places);
  inHalves(places.count(), TuplePlaces::kParallel,
           [&](std::size_t begin, std::size_t end) { write(codes, kinds, places, begin, end); });
}

/// Gives slots to the kinds of the fewest names, as many kinds as there is room for.
void MessageRows::makeSlots(const CodeNames& codes, Kinds& kinds) {
  std::array<std::size_t, kNames> order;
  std::iota(order.begin(), order.end(), std::size_t{0});
  std::stable_sort(order.begin(), order.end(), [&](std::size_t a, std::size_t b) {
    return kinds[a].unitsNeeded() < kinds[b].unitsNeeded();
  });
  std::size_t end = kLongSlotUnits;
  for (const std::size_t i : order) {
    // No slot straddles a cache line.
    end += end % kLongSlotUnits;
    if (kinds[i].unitsNeeded() > kSlotsLimit / kSlotUnit - end) {
      _kindsInRows |= 1u << i;
      continue;
    }
    kinds[i].place(end);
    end += kinds[i].unitsNeeded();
  }
  _slots = Rows(end / kLongSlotUnits + 1, kLongSlotUnits * kSlotUnit);
  for (std::size_t i = 0; i < kNames; ++i) {
    if ((_kindsInRows & 1u << i) == 0) kinds[i].writeSlots(codes, _slots[0]);
  }
}

void MessageRows::makeRows(const TuplePlaces& places) {
  RowSize size;
  for (std::size_t tuple = 0; tuple < places.count(); ++tuple) {
    if (hasTooLongName(places[tuple])) continue;
    std::size_t bytes = kReferencesBytes;
    for (std::size_t i = 0; i < kNames; ++i) {
      if ((_kindsInRows & 1u << i) != 0) bytes += places[tuple][i].length;
    }
    size.count(bytes);
  }
  _rows = Rows(places.count(), size.choose().bytes);
}

/// Of the tuples `begin` to `end` - 1.
void MessageRows::write(const CodeNames& codes, const Kinds& kinds, const TuplePlaces& places,
                        std::size_t begin, std::size_t end) {
  for (std::size_t tuple = begin; tuple < end; ++tuple) {
    if (tuple + TuplePlaces::kAhead < end) {
      for (std::size_t i = 0; i < kNames; ++i) {
        if ((_kindsInRows & 1u << i) != 0) codes.prefetch(places[tuple + TuplePlaces::kAhead][i]);
      }
    }
    writeRow(codes, kinds, places[tuple], _rows[tuple]);
  }
}

void MessageRows::writeRow(const CodeNames& codes, const Kinds& kinds,
                           const TuplePlaces::Places& places, char* row) const {
  std::array<std::uint16_t, kNames> references{};
  static_assert(sizeof references == kReferencesBytes);
  // Made aside of whole pieces, for whose copies the names' lengths need not be looked at.
  std::array<char, kNames * CodeNames::kReadableBytes> text;
  static_assert(kLongName < CodeNames::kReadableBytes);
  const std::size_t room = _rows.bytes() - kReferencesBytes;
  std::size_t end = 0;
  bool complete = !hasTooLongName(places);
  for (std::size_t i = 0; i < kNames && complete; ++i) {
    if ((_kindsInRows & 1u << i) == 0) {
      references[i] = kinds[i].reference(places[i]);
      continue;
    }
    std::memcpy(text.data() + end, codes.view(places[i]).data(), CodeNames::kReadableBytes);
    references[i] = static_cast<std::uint16_t>(end << 8 | places[i].length);
    end += places[i].length;
    complete = end <= room;
  }
  if (!complete) {
    references[0] = kIncomplete;
    end = 0;
  }
  std::memcpy(row, text.data(), end);
  std::memcpy(row + room, references.data(), kReferencesBytes);
}

}  // namespace tolvar
