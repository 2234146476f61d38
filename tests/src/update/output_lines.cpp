#include "tests/src/update/output_lines.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <sstream>

namespace tolvar_test {

OutputLines parseLines(const std::string& output) {
  const std::string prefix = "TolvarAPI:";
  OutputLines lines;
  std::istringstream in(output);
  for (std::string text; std::getline(in, text);) {
    OutputLine line;
    line.text = text;
    const auto begin = text.find(prefix);
    const auto bracket = begin == std::string::npos ? begin : text.find(']', begin);
    const std::string digits =
        bracket == std::string::npos
            ? std::string()
            : text.substr(begin + prefix.size(), bracket - begin - prefix.size());
    if (!digits.empty() && digits.find_first_not_of("0123456789") == std::string::npos) {
      line.number = std::stoi(digits);
      line.text = text.substr(bracket + 1);
      line.header = text.substr(0, begin);
    }
    lines.push_back(line);
  }
  return lines;
}

std::vector<std::string> textsAt(const OutputLines& lines, int number) {
  std::vector<std::string> texts;
  for (const OutputLine& line : lines)
    if (line.number == number) texts.push_back(line.text);
  return texts;
}

std::vector<std::string> textsStarting(const OutputLines& lines, const std::string& start) {
  std::vector<std::string> texts;
  for (const OutputLine& line : lines)
    if (line.text.rfind(start, 0) == 0) texts.push_back(line.text);
  return texts;
}

Output::Output() {
  testing::internal::CaptureStdout();
  testing::internal::CaptureStderr();
}

Output::~Output() {
  stop();
  const bool sanitizerSpoke = _all.find("Sanitizer") != std::string::npos;
  if (testing::Test::HasFailure() || sanitizerSpoke) std::printf("%s", _all.c_str());
}

void Output::stop() {
  const std::string written = testing::internal::GetCapturedStdout();
  const std::string errors = testing::internal::GetCapturedStderr();
  _all += written + errors;
  out = parseLines(written);
  err = parseLines(errors);
}

void Output::take() {
  stop();
  testing::internal::CaptureStdout();
  testing::internal::CaptureStderr();
}

}  // namespace tolvar_test
