#include <CLI/CLI.hpp>
#include <cstdio>

#include "tools/tolvar/lookup_command.h"

int main(int argc, char** argv) {
  using namespace tolvar::tools;
  CLI::App app{
      "Tells where IPv4 addresses are: country, province, city, district, operator, network."};
  app.name("tolvar");
  app.set_version_flag("--version", TOLVAR_VERSION);
  app.require_subcommand(1);
  app.footer(
      "Exit status: 0 every address was found, 1 at least one was not, 2 nothing could be "
      "looked up.");

  LookupCommand lookup;
  CLI::App* const lookupApp = app.add_subcommand("lookup", "Look addresses up in a table");
  lookup.declare(*lookupApp);

  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? kExitAnswered : kExitFailed;
  }
  try {
    return lookup.run();
  } catch (const std::exception& error) {
    std::fprintf(stderr, "tolvar: %s\n", error.what());
    return kExitFailed;
  }
}
