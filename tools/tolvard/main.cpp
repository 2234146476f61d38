#include <CLI/CLI.hpp>
#include <csignal>
#include <cstdio>

#include "tools/tolvard/conf_command.h"
#include "tools/tolvard/export_command.h"
#include "tools/tolvard/import_command.h"
#include "tools/tolvard/report_commands.h"
#include "tools/tolvard/serve/serve_command.h"
#include "tools/tolvard/versions_command.h"

namespace {

using namespace tolvar::tools;

/// Declares a command; what parsing it finds is run.
template <class Command>
void add(CLI::App& app, const char* name, const char* about, Command& command,
         std::function<int()>& chosen) {
  CLI::App* const sub = app.add_subcommand(name, about);
  command.declare(*sub);
  sub->final_callback([&command, &chosen] { chosen = [&command] { return command.run(); }; });
}

}  // namespace

int main(int argc, char** argv) {
  // A full pipe, or a file at its size limit, shows as a failed write.
  std::signal(SIGPIPE, SIG_IGN);
  std::signal(SIGXFSZ, SIG_IGN);
  CLI::App app{"Keeps IPv4 range tables in versions and serves them to TolvarAPI clients."};
  app.name("tolvard");
  app.set_version_flag("--version", TOLVARD_VERSION);
  app.require_subcommand(1);
  app.footer(
      "Exit status: 0 done, 1 an import was refused or a check found damage, 2 nothing was done.");

  std::function<int()> chosen;
  ServeCommand serve;
  add(app, "serve", "Serve the newest version to clients", serve, chosen);
  ImportCommand import;
  add(app, "import", "Make a file the version that is served", import, chosen);
  VersionsCommand versions;
  add(app, "versions", "List the versions", versions, chosen);
  RollbackCommand rollback;
  add(app, "rollback", "Serve the content of an older version again", rollback, chosen);
  ConfCommand conf;
  add(app, "conf", "Show or change what clients are configured with", conf, chosen);
  ExportCommand exporting;
  add(app, "export", "Write a version as CSV", exporting, chosen);
  CheckCommand check;
  add(app, "check", "Look for damage in the database", check, chosen);
  UsageCommand usage;
  add(app, "usage", "Show what clients reported", usage, chosen);

  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? kExitDone : kExitFailed;
  }
  try {
    return chosen();
  } catch (const std::exception& error) {
    std::fprintf(stderr, "tolvard: %s\n", error.what());
    return kExitFailed;
  }
}
