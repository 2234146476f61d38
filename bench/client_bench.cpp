#include <cstring>

#include "bench/cases.h"
#include "bench/support/geoip_table.h"
#include "bench/support/run_main.h"
#include "bench/support/synthetic_table.h"

/// Compares a client, as a host uses it, with other ways to answer the same questions about the
/// same table, in one process. Names of lookup cases are queries/form/contestant, and their times
/// are nanoseconds per address.
///
///   client_bench --table=geoip|RANGES --group=lookups|replacement|tables|memory [benchmark flags]
///
/// RANGES is a number of synthetic ranges. The client is filled by a service in this process; its
/// shared memory has keys of its own and is removed at the end.

namespace {

using namespace tolvar_bench;

/// The value of `--name=value`, which is taken out of the arguments; null when there is none.
const char* takeFlag(const char* name, int* argc, char** argv) {
  const std::size_t length = std::strlen(name);
  for (int i = 1; i < *argc; ++i) {
    if (std::strncmp(argv[i], name, length) != 0 || argv[i][length] != '=') continue;
    const char* const value = argv[i] + length + 1;
    std::copy(argv + i + 1, argv + *argc + 1, argv + i);
    --*argc;
    return value;
  }
  return nullptr;
}

ravel::vIPProperty makeTable(const std::string& name) {
  if (name == "geoip") return readGeoipTable();
  SyntheticOptions options;
  options.ranges = std::stoul(name);
  return makeSyntheticTable(options);
}

int run(int argc, char** argv) {
  const char* const table = takeFlag("--table", &argc, argv);
  const char* const group = takeFlag("--group", &argc, argv);
  if (table == nullptr || group == nullptr) {
    std::fprintf(stderr,
                 "usage: %s --table=geoip|RANGES --group=lookups|replacement|tables|memory "
                 "[benchmark flags]\n",
                 argv[0]);
    return 2;
  }
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 2;
  Scene scene(makeTable(table));
  const std::string wanted = group;
  if (wanted == "lookups") {
    registerLookups(scene);
  } else if (wanted == "replacement") {
    registerReplacement(scene);
  } else if (wanted == "tables") {
    registerTables(scene);
  } else if (wanted == "memory") {
    registerMemory(scene);
  } else {
    std::fprintf(stderr, "client_bench: there is no group \"%s\"\n", group);
    return 2;
  }
  benchmark::AddCustomContext("table", table);
  benchmark::AddCustomContext("group", group);
  benchmark::AddCustomContext("ranges", std::to_string(scene.table().size()));
  benchmark::AddCustomContext("tuples", std::to_string(scene.index().tupleCount()));
  benchmark::RunSpecifiedBenchmarks();
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  return tolvar_bench::runMain("client_bench", [&] { return run(argc, argv); });
}
