#include <CLI/CLI.hpp>
#include <cstdio>
#include <functional>

#include "tools/tolvar/lookup_command.h"
#include "tools/tolvar/shm_command.h"
#include "tools/tolvar/watch_command.h"

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
  CLI::App app{
      "Tells where IPv4 addresses are: country, province, city, district, operator, network."};
  app.name("tolvar");
  app.set_version_flag("--version", TOLVAR_VERSION);
  app.require_subcommand(1);
  app.footer(
      "Exit status: 0 done, 1 an address was not found or a digest did not come, 2 nothing was "
      "done.");

  std::function<int()> chosen;
  LookupCommand lookup;
  add(app, "lookup", "Look addresses up in a table or at a service", lookup, chosen);
  WatchCommand watch;
  add(app, "watch", "Follow a service and show what a client of it holds", watch, chosen);
  ShmCommand shm;
  add(app, "shm", "Look at images in shared memory, and remove them", shm, chosen);

  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? kExitAnswered : kExitFailed;
  }
  try {
    return chosen();
  } catch (const std::exception& error) {
    std::fprintf(stderr, "tolvar: %s\n", error.what());
    return kExitFailed;
  }
}
