#pragma once

#include <string>
#include <vector>

#include "tools/shared/exit_status.h"
#include "tools/tolvar/client_options.h"

namespace CLI {
class App;
}

namespace tolvar::tools {

/// `tolvar lookup`: answers addresses from a table, or from a service's.
struct LookupCommand {
  std::string tablePath;
  std::string codesPath;
  ClientOptions client;
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
