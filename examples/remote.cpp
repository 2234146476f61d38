// A client of a running service: starts from the host's shared memory or from what the service
// sends, looks addresses up.
//
//   remote SERVICE KEY ADDRESS...
//
// SERVICE is tolvard's address, such as 127.0.0.1:50061. KEY, KEY + 1 and KEY + 2 name the shared
// memory, which stays for the other processes of the host. `ipcrm -M KEY` removes a segment.

#include <cstdio>
#include <cstdlib>
#include <exception>

#include "include/TolvarAPI.h"
#include "transport/grpc/grpc_communicator.h"

int main(int argc, char** argv) try {
  if (argc < 4) {
    std::fprintf(stderr, "usage: remote SERVICE KEY ADDRESS...\n");
    return 2;
  }
  const char* const mainObject = "Tolvar.LookupServer.TolvarObj@tcp";
  const char* const fastObject = "Tolvar.LookupServer.FTolvarObj@tcp";
  tolvar::GrpcOptions service;
  service.endpoints = {{mainObject, {argv[1]}}, {fastObject, {argv[1]}}};
  // Outlives the client, which uses it to its end.
  tolvar::GrpcCommunicator communicator(service);

  const key_t key = std::atoi(argv[2]);
  TolvarAPI api;
  if (!api.initialize(&communicator, mainObject, fastObject, key, key + 1, ".", key + 2)) {
    std::fprintf(stderr, "remote: not ready: %s\n", api.status().lastError.c_str());
    return 2;
  }
  for (int i = 3; i < argc; ++i) {
    IPHumanMessage names;
    const bool found = api.getIPInfoFromStr(argv[i], &names);
    std::printf("%s: %s\n", argv[i], found ? names.m_country.c_str() : "not found");
  }
  return 0;
} catch (const std::exception& error) {
  std::fprintf(stderr, "remote: %s\n", error.what());
  return 2;
}
