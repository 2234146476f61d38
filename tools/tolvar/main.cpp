#include "tools/shared/command_line.h"
#include "tools/tolvar/lookup_command.h"
#include "tools/tolvar/shm_command.h"
#include "tools/tolvar/watch_command.h"

int main(int argc, char** argv) {
  using namespace tolvar::tools;
  CommandLine commands(
      "tolvar", TOLVAR_VERSION,
      "Tells where IPv4 addresses are: country, province, city, district, operator, network.",
      "an address was not found, a digest did not come or an image is damaged");
  commands.add<LookupCommand>("lookup", "Look addresses up in a table or at a service");
  commands.add<WatchCommand>("watch", "Follow a service and show what a client of it holds");
  commands.add<ShmCommand>("shm", "Look at images in shared memory, and remove them");
  return commands.run(argc, argv);
}
