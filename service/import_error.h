#pragma once

#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

namespace tolvar::service {

/// One finding in an imported file. `line` and `column` count from 1; a column is a character of
/// the line, not a field. Both are 0 when the finding concerns the file as a whole.
struct ImportNote {
  std::string file;
  std::uint32_t line = 0;
  std::uint32_t column = 0;
  std::string message;

  /// "file:line:column: message", or "file: message".
  std::string text() const;
};

/// Most faults that are gathered before an import gives up.
inline constexpr std::size_t kMaxImportFaults = 20;

/// A file cannot be imported. `what()` holds the text of every fault, one a line.
class ImportError : public std::runtime_error {
 public:
  explicit ImportError(std::vector<ImportNote> faults);

  /// Ascending by position; at most kMaxImportFaults, then a note that there are more.
  const std::vector<ImportNote>& faults() const noexcept { return _faults; }

 private:
  std::vector<ImportNote> _faults;
};

}  // namespace tolvar::service
