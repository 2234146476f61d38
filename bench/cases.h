#pragma once

#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "bench/support/contestants.h"
#include "bench/support/host.h"
#include "bench/support/mmdb_table.h"
#include "bench/support/mmdb_writer.h"
#include "src/index/range_index.h"
#include "tools/tolvar/private_run.h"

/// What one run of the benchmarks works on, and the groups of cases that take part in it.
namespace tolvar_bench {

/// One table, in every form that is compared. Made once, by the main thread, before any other.
class Scene {
 public:
  /// Throws qel::ZU_Exception; ends the program when the contestants disagree about the table.
  explicit Scene(ravel::vIPProperty ranges);

  const tolvar::tools::PrivateRun& run() const noexcept { return _run; }
  const ravel::vIPProperty& table() const noexcept { return _table; }
  Service& service() noexcept { return _service; }

  /// The client under test, whose service wants no reports.
  TolvarAPI& api() noexcept { return _client->api(); }
  Client& client() noexcept { return *_client; }

  /// One more client on the same image, whose service wants reports; made at the first call.
  TolvarAPI& reportingApi();

  const tolvar::RangeIndex& index() const noexcept { return _index; }
  const LowerBoundTable& lowerBound() const noexcept { return _lowerBound; }
  const NoSearch& limit() const noexcept { return _limit; }
  const MmdbTable& mmdb() const noexcept { return *_mmdb; }

 private:
  void checkAnswers(const std::vector<std::uint32_t>& queries);

  tolvar::tools::PrivateRun _run;
  ravel::vIPProperty _table;
  tolvar::RangeIndex _index;
  LowerBoundTable _lowerBound;
  NoSearch _limit;
  std::unique_ptr<MmdbTable> _mmdb;
  Service _service;
  std::unique_ptr<Client> _client;
  std::unique_ptr<Client> _reporting;
};

/// Lookups one after the other, dependent, in batches, with names, from text.
void registerLookups(Scene& scene);

/// Lookups while the table is replaced.
void registerReplacement(Scene& scene);

/// Attach, publication, index build.
void registerTables(Scene& scene);

/// Memory of a client while it takes over a table.
void registerMemory(Scene& scene);

}  // namespace tolvar_bench
