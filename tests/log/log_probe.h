#pragma once

#include <sys/stat.h>

#include <string>
#include <vector>

#include "log/log_entry.h"
#include "log/log_header.h"
#include "tests/support/system_calls_guard.h"
#include "tests/support/temp_dir.h"

namespace tolvar_test {

/// A batch of lines, each with its line end added.
inline qel::LogBatch batchOf(const std::vector<std::string>& lines) {
  qel::LogBatch batch;
  for (const std::string& line : lines) batch.emplace_back(qel::kLogInfo, line + "\n");
  return batch;
}

inline bool exists(const std::string& path) {
  struct stat found {};
  return ::stat(path.c_str(), &found) == 0;
}

/// Lines of a text without their ends; what follows the last line end is a line too.
inline std::vector<std::string> linesOf(const std::string& text) {
  std::vector<std::string> lines;
  std::string::size_type begin = 0;
  while (begin < text.size()) {
    auto end = text.find('\n', begin);
    if (end == std::string::npos) end = text.size();
    lines.push_back(text.substr(begin, end - begin));
    begin = end + 1;
  }
  return lines;
}

}  // namespace tolvar_test
