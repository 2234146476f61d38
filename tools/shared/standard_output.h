#pragma once

#include <stdexcept>
#include <string_view>

namespace tolvar::tools {

/// Standard output takes no more.
class OutputLost : public std::runtime_error {
 public:
  /// `error` is an errno value.
  explicit OutputLost(int error);

  /// Whoever reads a pipe has seen enough, which is no failure.
  bool readerLeft() const noexcept;

 private:
  int _error;
};

/// Writes to standard output, which may keep it back until `flushOutput`. Throws OutputLost.
void writeOutput(std::string_view text);

/// Sends on what was kept back. Throws OutputLost, also when something was lost earlier.
void flushOutput();

/// Writes and sends on. Throws OutputLost.
void print(std::string_view text);

}  // namespace tolvar::tools
