#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "tools/tolvar/remote_client.h"

namespace CLI {
class App;
}

namespace tolvar::tools {

/// Exit statuses of the tool.
enum ExitStatus : int {
  kExitAnswered = 0,    ///< every address was found
  kExitUnanswered = 1,  ///< at least one was not found or is no address
  kExitFailed = 2,      ///< nothing could be looked up: a bad flag, a bad table, no shared memory
};

/// `tolvar lookup`: answers addresses from a table, or from a service's.
struct LookupCommand {
  std::string tablePath;
  ServiceAddress service;
  std::string codesPath;
  std::string logPath;
  std::vector<std::int32_t> keys;
  std::vector<std::string> addresses;
  bool json = false;
  bool timing = false;

  /// Declares the flags.
  void declare(CLI::App& app);

  /// Answers to standard output, warnings and timing to standard error. Throws std::exception when
  /// nothing could be looked up.
  ExitStatus run() const;
};

}  // namespace tolvar::tools
