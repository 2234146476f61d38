#include "tools/shared/command_line.h"

#include <cstdio>
#include <iostream>
#include <sstream>

#include "tools/shared/standard_output.h"

namespace tolvar::tools {

CommandLine::CommandLine(const std::string& name, const std::string& version,
                         const std::string& about, const std::string& exits)
    : _app(about, name) {
  _app.set_version_flag("--version", version);
  _app.require_subcommand(1);
  _app.footer("Exit status: 0 done, 1 " + exits + ", 2 nothing was done.");
}

ExitStatus CommandLine::run(int argc, char** argv) {
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
