#pragma once

#include <string>
#include <vector>

namespace tolvar_test {

/// One line of the client: "TolvarAPI:722]text" is number 722 and "text". A line of another form
/// has number -1 and its whole text. The header of a log file's line is kept apart.
struct OutputLine {
  int number = -1;
  std::string text;
  std::string header;
};

using OutputLines = std::vector<OutputLine>;

OutputLines parseLines(const std::string& output);

/// Texts of the lines with this number.
std::vector<std::string> textsAt(const OutputLines& lines, int number);

/// Texts of the lines that begin with `start`.
std::vector<std::string> textsStarting(const OutputLines& lines, const std::string& start);

/// Takes standard output and standard error for a scope, so that a test sees what the client writes
/// before its log is up. When the test has failed or a sanitizer reported something,
/// everything taken is printed at the end.
class Output {
 public:
  Output();
  ~Output();
  Output(const Output&) = delete;
  Output& operator=(const Output&) = delete;

  /// Moves what was written since the last call into `out` and `err`.
  void take();

  OutputLines out;
  OutputLines err;

 private:
  void stop();

  std::string _all;
};

}  // namespace tolvar_test
