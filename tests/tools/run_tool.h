#pragma once

#include <string>
#include <vector>

namespace tolvar_test {

struct ToolRun {
  int exitStatus = -1;  ///< -1 when a signal ended it
  std::string out;
  std::string err;
};

/// Runs a program to its end with `input` on its standard input. `path` is absolute.
ToolRun runTool(const std::string& path, const std::vector<std::string>& arguments,
                const std::string& input = "");

}  // namespace tolvar_test
