#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "service/import_error.h"

namespace tolvar::service {

/// A text file in memory, with its name for messages. Immutable; safe from any thread.
class TextSource {
 public:
  /// Reads the file `path`. Throws ImportError when it cannot be read, is a directory, is larger
  /// than `limit` bytes or is UTF-16 text or gzip data.
  static TextSource load(const std::string& path, std::uint64_t limit);

  TextSource(std::string name, std::string text);

  const std::string& name() const noexcept { return _name; }

  /// Everything, a UTF-8 byte-order mark included.
  std::string_view text() const noexcept { return _text; }

  /// Offset of the first byte behind a byte-order mark.
  std::size_t begin() const noexcept { return _begin; }

  /// A note about the place at byte `offset`. Counts lines from the start: for messages only.
  ImportNote note(std::size_t offset, std::string message) const;

  /// Line of the byte at `offset`, from 1. For messages only.
  std::uint32_t line(std::size_t offset) const;

 private:
  std::string _name;
  std::string _text;
  std::size_t _begin = 0;
};

/// Gathers the faults of one source.
class FaultList {
 public:
  explicit FaultList(const TextSource& source) : _source(source) {}

  void add(std::size_t offset, const std::string& message);

  /// No more are taken; reading on makes no sense.
  bool isFull() const noexcept { return _faults.size() > kMaxImportFaults; }

  bool isEmpty() const noexcept { return _faults.empty(); }

  /// Throws ImportError when there are any.
  void throwIfAny();

  const TextSource& source() const noexcept { return _source; }

 private:
  struct Fault {
    std::size_t offset;
    std::string message;
  };

  const TextSource& _source;
  std::vector<Fault> _faults;
};

/// Offset of the first line that is neither blank nor begins with '#'; the end when there is none.
std::size_t skipLeadingComments(const TextSource& source);

/// `text` in double quotes for a message: cut when long, what cannot be printed as \xNN.
std::string quoted(std::string_view text);

/// Bytes of the control character, C1 controls included, that begins the UTF-8 text `text`; 0 when
/// it begins with something else or is empty.
std::size_t controlLength(std::string_view text);

/// `text` without blanks and tabs at its ends.
std::string_view trimmed(std::string_view text);

/// True when `text` is well-formed UTF-8 (no surrogates, nothing overlong or above U+10FFFF).
bool isUtf8(std::string_view text);

}  // namespace tolvar::service
