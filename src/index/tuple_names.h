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
#include "src/index/message_rows.h"
#include "src/index/range_index.h"
#include "src/index/rows.h"
#include "src/index/tuple_places.h"

namespace tolvar {

/// The names of every attribute tuple of a RangeIndex, resolved once; a name that the code tables
/// do not have is empty. The text of a tuple's names lies together in a row, because nine names at
/// nine places would be nine waits for memory. All rows have the same size, chosen for the table so
/// that nearly all tuples' text fits; the names of the others are shown where the CodeNames have
/// them. Views are made without the rows: where the names end in them lies in a table of its own,
/// which is far smaller and so nearer to the processor. Messages are copied from rows of their own.
///
/// Immutable: every operation may be called from any number of threads at once, and none
/// allocates, locks or calls the operating system.
class TupleNames {
 public:
  /// From the first byte of every name on, this many may be read: whoever copies short names need
  /// not look at their lengths.
  static constexpr std::size_t kReadableBytes = CodeNames::kReadableBytes;

  /// Resolves the tuples of `ranges` (used during the call only) with `codes`, which the object
  /// keeps and which is not null. Throws std::bad_alloc.
  TupleNames(const RangeIndex& ranges, std::shared_ptr<const CodeNames> codes);

  /// The names of `tuple`, a number below tupleCount(). Tuple 0 has nine empty ones. Valid as long
  /// as the object.
  IPNameView row(std::uint32_t tuple) const noexcept {
    return IPNameView(_rows[tuple], _ends[tuple]);
  }

  const MessageRows& messages() const noexcept { return _messages; }

  std::size_t tupleCount() const noexcept { return _ends.size(); }

 private:
  static_assert(kReadableBytes <= Rows::kReadableBytes);
  static_assert(CodeNames::kNames == IPNameView::kNames);

  using Views = std::array<std::string_view, CodeNames::kNames>;

  TupleNames(const TuplePlaces& places, std::shared_ptr<const CodeNames> codes);

  void makeRows(const TuplePlaces& places);
  void write(const TuplePlaces& places, std::size_t begin, std::size_t end);
  IPNameView::Ends writeText(const TuplePlaces::Places& places, char* row) const;

  std::shared_ptr<const CodeNames> _codes;
  Rows _rows;
  std::vector<IPNameView::Ends, qel::HugePageAllocator<IPNameView::Ends>> _ends;
  std::vector<Views> _apart;  ///< names of the tuples whose text does not fit
  MessageRows _messages;
};

}  // namespace tolvar
