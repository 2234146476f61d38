#include "tools/shared/command_line.h"

#include <cstdio>
#include <iostream>
#include <sstream>
#include <vector>

#include "service/text_source.h"
#include "tools/shared/standard_output.h"

namespace tolvar::tools {
namespace {

/// The command whose words were being read.
const CLI::App& innermost(const CLI::App& app) {
  const std::vector<CLI::App*> chosen = app.get_subcommands();
  return chosen.empty() ? app : innermost(*chosen.front());
}

std::string wholeName(const CLI::App& app) {
  const CLI::App* const parent = app.get_parent();
  return parent == nullptr ? app.get_name() : wholeName(*parent) + " " + app.get_name();
}

/// "a, b or c"; empty when `app` has no commands.
std::string commandsOf(const CLI::App& app) {
  const auto commands = app.get_subcommands([](const CLI::App*) { return true; });
  std::string names;
  for (std::size_t i = 0; i < commands.size(); ++i)
    names += (i == 0 ? "" : i + 1 == commands.size() ? " or " : ", ") + commands[i]->get_name();
  return names;
}

/// What is wrong with the command line, and where to read what would be right.
std::string failureText(const CLI::App* app, const CLI::Error& error) {
  const CLI::App& command = innermost(*app);
  const bool isRequired = error.get_name() == "RequiredError";
  std::string what = error.what();
  if (const std::string names = commandsOf(command); isRequired && !names.empty())
    what = "name a command: " + names;
  // A word that was meant for what is missing tells more than that it is missing.
  if (isRequired)
    for (const std::string& word : app->remaining(true))
      what += "; " + service::quoted(word) + " is not known";
  const std::string name = wholeName(command);
  return name + ": " + what + "\nSee `" + name + " --help`.\n";
}

}  // namespace

CommandLine::CommandLine(const std::string& name, const std::string& version,
                         const std::string& about, const std::string& exits)
    : _app(about, name) {
  _app.set_version_flag("--version", version);
  _app.require_subcommand(1);
  _app.failure_message(failureText);
  _app.footer("Exit status: 0 done, 1 " + exits + ", 2 nothing was done.");
}

ExitStatus CommandLine::run(int argc, char** argv) {
  reserveStandardDescriptors();
  try {
    const ExitStatus status = runParsed(argc, argv);
    flushOutput();
    return status;
  } catch (const OutputLost& lost) {
    return lost.readerLeft() ? kExitDone : fail(lost);
  } catch (const std::exception& error) {
    return fail(error);
  }
}

ExitStatus CommandLine::runParsed(int argc, char** argv) {
  try {
    _app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    std::ostringstream help;
    const int status = _app.exit(error, help, std::cerr);
    writeOutput(help.str());
    return status == 0 ? kExitDone : kExitFailed;
  }
  return _chosen();
}

ExitStatus CommandLine::fail(const std::exception& error) const {
  std::fprintf(stderr, "%s: %s\n", _app.get_name().c_str(), error.what());
  return kExitFailed;
}

}  // namespace tolvar::tools
