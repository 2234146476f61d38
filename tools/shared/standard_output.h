#pragma once

#include <stdexcept>
#include <string>
#include <string_view>

namespace tolvar::tools {

/// Standard output takes no more.
class OutputLost : public std::runtime_error {
 public:
  /// `error` is an errno value; `done` is empty, or see `after`.
  explicit OutputLost(int error, const std::string& done = "");

  /// The same, saying as well what was done before: it is not undone.
  OutputLost after(const std::string& done) const { return OutputLost(_error, done); }

  /// Whoever reads a pipe has seen enough, which is no failure.
  bool readerLeft() const noexcept;

 private:
  int _error;
};

/// Takes the numbers of standard input, output and error where they are closed, so that no file or
/// connection of the program's gets one of them and with it what is meant for a reader. What is
/// written there is lost as before. To be called before anything is opened.
void reserveStandardDescriptors() noexcept;

/// Writes to standard output, which may keep it back until `flushOutput`. Throws OutputLost.
void writeOutput(std::string_view text);

/// Sends on what was kept back. Throws OutputLost, also when something was lost earlier.
void flushOutput();

/// Writes and sends on. Throws OutputLost.
void print(std::string_view text);

}  // namespace tolvar::tools
