#include <csignal>

#include "tools/shared/command_line.h"
#include "tools/tolvard/conf_command.h"
#include "tools/tolvard/export_command.h"
#include "tools/tolvard/import_command.h"
#include "tools/tolvard/report_commands.h"
#include "tools/tolvard/serve/serve_command.h"
#include "tools/tolvard/versions_command.h"

int main(int argc, char** argv) {
  using namespace tolvar::tools;
  // A full pipe, or a file at its size limit, shows as a failed write.
  std::signal(SIGPIPE, SIG_IGN);
  std::signal(SIGXFSZ, SIG_IGN);
  CommandLine commands("tolvard", TOLVARD_VERSION,
                       "Keeps IPv4 range tables in versions and serves them to TolvarAPI clients.",
                       "an import was refused or a check found damage");
  commands.add<ServeCommand>("serve", "Serve the newest version to clients");
  commands.add<ImportCommand>("import", "Make a file the version that is served");
  commands.add<VersionsCommand>("versions", "List the versions");
  commands.add<RollbackCommand>("rollback", "Serve the content of an older version again");
  commands.add<ConfCommand>("conf", "Show or change what clients are configured with");
  commands.add<ExportCommand>("export", "Write a version as CSV");
  commands.add<CheckCommand>("check", "Look for damage in the database");
  commands.add<UsageCommand>("usage", "Show what clients reported");
  return commands.run(argc, argv);
}
