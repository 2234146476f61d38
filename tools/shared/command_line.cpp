#include "tools/shared/command_line.h"

#include <cstdio>

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
    _app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return _app.exit(error) == 0 ? kExitDone : kExitFailed;
  }
  try {
    return _chosen();
  } catch (const std::exception& error) {
    std::fprintf(stderr, "%s: %s\n", _app.get_name().c_str(), error.what());
    return kExitFailed;
  }
}

}  // namespace tolvar::tools
