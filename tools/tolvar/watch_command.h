#pragma once

#include <string>

#include "tools/shared/exit_status.h"
#include "tools/tolvar/client_options.h"

namespace tolvar::tools {

/// `tolvar watch`: keeps a client of a service running and says what becomes of it, until a signal
/// or as long as it is told to.
struct WatchCommand {
  ClientOptions client;
  std::string untilDigest;
  double forSeconds = 0;  ///< 0: without end
  bool json = false;
  int timeScale = 1;

  /// Declares the flags.
  void declare(CLI::App& app);

  /// One line on standard output at the start and at every change. Answers kExitNo when a
  /// digest was waited for and did not come. Throws std::exception when no client can run.
  ExitStatus run() const;
};

}  // namespace tolvar::tools
