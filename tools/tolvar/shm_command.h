#pragma once

#include <optional>

#include "tools/shared/exit_status.h"
#include "tools/tolvar/key_list.h"

namespace CLI {
class App;
}

namespace tolvar::tools {

/// `tolvar shm`: the images in shared memory, seen from outside. Only `rm` changes anything.
struct ShmCommand {
  enum class Action { List, Show, Verify, Remove };

  Action action = Action::List;
  ImageKeys keys{};
  bool json = false;
  bool force = false;

  /// Declares the subcommands and their flags.
  void declare(CLI::App& app);

  /// Prints to standard output, refusals to standard error. Answers kExitNo when `verify` found
  /// damage or `rm` refused. Throws std::exception when there is no image, or it
  /// cannot be read.
  ExitStatus run() const;

 private:
  CLI::App* declareAction(CLI::App& app, const char* name, const char* description, Action what);
  ExitStatus list() const;
  ExitStatus show() const;
  ExitStatus verify() const;
  ExitStatus remove() const;
};

}  // namespace tolvar::tools
