// A service and a client in one process: imports a table, starts the client, looks addresses up.
//
//   embedded KEY TABLE ADDRESS...
//
// KEY, KEY + 1 and KEY + 2 name the shared memory, which stays: a second run with the same table
// starts from it and downloads nothing. `ipcrm -M KEY` removes a segment.

#include <cstdio>
#include <cstdlib>

#include "include/TolvarAPI.h"
#include "service/importer.h"
#include "service/lookup_service.h"
#include "transport/in_process_communicator.h"

int main(int argc, char** argv) try {
  if (argc < 4) {
    std::fprintf(stderr, "usage: embedded KEY TABLE ADDRESS...\n");
    return 2;
  }
  const key_t keys = std::atoi(argv[1]);
  auto service = std::make_shared<tolvar::service::LookupService>();
  service->publish(tolvar::service::importTable(argv[2]).table);
  tolvar::InProcessCommunicator communicator(service);

  TolvarAPI api;
  TolvarAPIOptions options;
  options.comm = &communicator;
  options.ip_servant = "Tolvar.LookupServer.TolvarObj@tcp";
  options.fast_ip_servant = "Tolvar.LookupServer.FTolvarObj@tcp";
  options.shm_key_1 = keys;
  options.shm_key_2 = keys + 1;
  options.shm_key_3 = keys + 2;
  options.log_path = ".";
  if (!api.initialize(options)) {
    std::fprintf(stderr, "not ready: %s\n", api.status().lastError.c_str());
    return 2;
  }

  for (int i = 3; i < argc; ++i) {
    IPHumanMessage names;
    if (api.getIPInfoFromStr(argv[i], &names)) {
      std::printf("%s%s\n", argv[i], names.ToString().c_str());
    } else {
      std::printf("%s not found\n", argv[i]);
    }
  }
  return 0;
} catch (const std::exception& error) {
  std::fprintf(stderr, "embedded: %s\n", error.what());
  return 2;
}
