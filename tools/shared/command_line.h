#pragma once

#include <CLI/CLI.hpp>
#include <exception>
#include <functional>
#include <memory>
#include <string>

#include "tools/shared/exit_status.h"

namespace tolvar::tools {

/// The command line of a program that does what its first word says.
class CommandLine {
 public:
  /// `exits` explains what an exit status of 1 means, for the end of the help.
  CommandLine(const std::string& name, const std::string& version, const std::string& about,
              const std::string& exits);

  /// Makes and declares a command, which is run when its name is given.
  template <class Command>
  void add(const char* name, const char* about) {
    const auto command = std::make_shared<Command>();
    CLI::App* const sub = _app.add_subcommand(name, about);
    command->declare(*sub);
    sub->final_callback([this, command] { _chosen = [command] { return command->run(); }; });
  }

  /// Runs what is asked for; says on standard error why it could not be done. What standard output
  /// did not take is not done, unless a pipe's reader left.
  ExitStatus run(int argc, char** argv);

 private:
  ExitStatus runParsed(int argc, char** argv);
  ExitStatus fail(const std::exception& error) const;

  CLI::App _app;
  std::function<ExitStatus()> _chosen;
};

}  // namespace tolvar::tools
