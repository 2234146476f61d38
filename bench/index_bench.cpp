#include <benchmark/benchmark.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>

#include "bench/support/contestants.h"
#include "bench/support/geoip_table.h"
#include "bench/support/mmdb_table.h"
#include "bench/support/mmdb_writer.h"
#include "bench/support/queries.h"
#include "bench/support/synthetic_table.h"
#include "src/index/range_index.h"

/// Compares ways to look addresses up in one table, in one process and one run. Names are
/// table/queries/form/contestant. With TOLVAR_BENCH_LARGE in the environment, 3 and 10 million
/// ranges take part too. A row's "items_per_second" counts addresses.

namespace tolvar_bench {
namespace {

using tolvar::RangeIndex;

constexpr std::size_t kQueries = std::size_t{1} << 20;
constexpr std::size_t kBatch = 256;

struct Setup {
  ravel::vIPProperty table;
  RangeIndex index;
  LowerBoundTable lowerBound;
  NoSearch limit;
  MmdbTable mmdb;

  explicit Setup(const std::string& name, ravel::vIPProperty ranges)
      : table(std::move(ranges)),
        index(RangeIndex::build(table)),
        lowerBound(table),
        limit(index.leafLineCount(), static_cast<std::uint32_t>(index.tupleCount())),
        mmdb(mmdbOf(name, table)) {
    std::filesystem::remove(mmdbPath(name));  // it stays mapped
    checkAnswers(uniformQueries(100000, 9));
    checkAnswers(queriesOverRanges(table, 100000, 9));
  }

  /// Writes the same ranges as a MaxMind DB, with a name for every id.
  static std::string mmdbOf(const std::string& name, const ravel::vIPProperty& table) {
    const std::string path = mmdbPath(name);
    writeMmdb(path, table, [](int type, std::uint32_t id) {
      return "name " + std::to_string(type) + " of " + std::to_string(id);
    });
    return path;
  }

  static std::string mmdbPath(const std::string& name) {
    const std::string file = "tolvar-bench-" + std::to_string(getpid()) + "-" + name + ".mmdb";
    return (std::filesystem::temp_directory_path() / file).string();
  }

  /// A contestant that answers wrongly would win easily.
  void checkAnswers(const std::vector<std::uint32_t>& queries) const {
    for (const std::uint32_t ip : queries) {
      ravel::IPInfo fromIndex;
      ravel::IPInfo fromTable;
      std::uint32_t ids[4];
      const bool hit = lowerBound.lookup(ip, &fromTable);
      const bool same =
          index.lookup(ip, &fromIndex) == hit && mmdb.findIds(ip, ids) == hit &&
          (!hit || (fromIndex.district == fromTable.district && fromIndex.oper == fromTable.oper &&
                    ids[0] == fromTable.country && ids[1] == fromTable.province &&
                    ids[2] == fromTable.city && ids[3] == fromTable.oper));
      if (!same) {
        std::fprintf(stderr, "the contestants disagree about address %u\n", ip);
        std::abort();
      }
    }
  }
};

template <class Contestant>
void single(benchmark::State& state, const Contestant& contestant,
            const std::vector<std::uint32_t>& queries) {
  std::size_t at = 0;
  ravel::IPInfo info;
  for (auto _ : state) {
    bool found = contestant.lookup(queries[at], &info);
    benchmark::DoNotOptimize(found);
    benchmark::DoNotOptimize(info);
    at = (at + 1) & (kQueries - 1);
  }
  state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations()));
}

/// The next address depends on the answer before it.
template <class Contestant>
void chain(benchmark::State& state, const Contestant& contestant,
           const std::vector<std::uint32_t>& queries) {
  std::size_t at = 0;
  ravel::IPInfo info;
  std::uint32_t carry = 0;
  for (auto _ : state) {
    bool found = contestant.lookup(queries[at] ^ carry, &info);
    benchmark::DoNotOptimize(found);
    carry = static_cast<std::uint32_t>(static_cast<std::uint64_t>(info.district) >> 62);
    benchmark::DoNotOptimize(carry);
    at = (at + 1) & (kQueries - 1);
  }
  state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations()));
}

/// `find` answers whether an address was found and leaves what it found where it is kept alive.
template <class Function>
void each(benchmark::State& state, Function find, const std::vector<std::uint32_t>& queries) {
  std::size_t at = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(find(queries[at]));
    benchmark::ClobberMemory();
    at = (at + 1) & (kQueries - 1);
  }
  state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations()));
}

template <class Function>
void batch(benchmark::State& state, Function lookupBatch,
           const std::vector<std::uint32_t>& queries) {
  std::size_t at = 0;
  std::vector<ravel::IPInfo> infos(kBatch);
  std::vector<std::uint8_t> found(kBatch);
  for (auto _ : state) {
    lookupBatch(std::span(queries).subspan(at, kBatch), infos.data(), found.data());
    benchmark::ClobberMemory();
    at = (at + kBatch) & (kQueries - 1);
  }
  state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations() * kBatch));
}

void build(benchmark::State& state, const ravel::vIPProperty& table) {
  for (auto _ : state) {
    const RangeIndex index = RangeIndex::build(table);
    benchmark::DoNotOptimize(index.tupleCount());
    state.counters["B/range"] = static_cast<double>(index.memoryBytes() - index.tupleCount() * 64) /
                                static_cast<double>(table.size());
  }
  state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations() * table.size()));
}

void registerQueries(const std::string& prefix, const std::shared_ptr<Setup>& setup,
                     std::vector<std::uint32_t> addresses) {
  const auto queries = std::make_shared<const std::vector<std::uint32_t>>(std::move(addresses));
  const auto add = [&](const std::string& name, auto body) {
    benchmark::RegisterBenchmark((prefix + name).c_str(), body);
  };
  add("single/index", [=](benchmark::State& s) { single(s, setup->index, *queries); });
  add("single/lower_bound", [=](benchmark::State& s) { single(s, setup->lowerBound, *queries); });
  add("single/no_search", [=](benchmark::State& s) { single(s, setup->limit, *queries); });
  add("single/mmdb_find", [=](benchmark::State& s) {
    each(
        s, [&](std::uint32_t ip) { return setup->mmdb.find(ip).found_entry; }, *queries);
  });
  add("single/mmdb_find_ids", [=](benchmark::State& s) {
    std::uint32_t ids[4];
    each(
        s, [&](std::uint32_t ip) { return setup->mmdb.findIds(ip, ids); }, *queries);
  });
  add("single/mmdb_find_names", [=](benchmark::State& s) {
    std::string names[4];
    each(
        s, [&](std::uint32_t ip) { return setup->mmdb.findNames(ip, names); }, *queries);
  });
  add("chain/index", [=](benchmark::State& s) { chain(s, setup->index, *queries); });
  add("chain/lower_bound", [=](benchmark::State& s) { chain(s, setup->lowerBound, *queries); });
  add("chain/no_search", [=](benchmark::State& s) { chain(s, setup->limit, *queries); });
  add("batch/index", [=](benchmark::State& s) {
    batch(
        s, [&](auto... a) { setup->index.findBatch(a...); }, *queries);
  });
  add("batch/no_search", [=](benchmark::State& s) {
    batch(
        s, [&](auto... a) { setup->limit.lookupBatch(a...); }, *queries);
  });
}

void registerTable(const std::string& name, ravel::vIPProperty table) {
  const auto setup = std::make_shared<Setup>(name, std::move(table));
  registerQueries(name + "/ranges/", setup, queriesOverRanges(setup->table, kQueries, 1));
  registerQueries(name + "/uniform/", setup, uniformQueries(kQueries, 2));
  registerQueries(name + "/log/", setup, logLikeQueries(setup->table, kQueries, 3));
  benchmark::RegisterBenchmark((name + "/build").c_str(),
                               [=](benchmark::State& s) { build(s, setup->table); });
}

}  // namespace
}  // namespace tolvar_bench

int main(int argc, char** argv) {
  using namespace tolvar_bench;
  registerTable("geoip", readGeoipTable());
  registerTable("524288", makeSyntheticTable({}));
  if (std::getenv("TOLVAR_BENCH_LARGE") != nullptr) {
    for (const std::size_t ranges : {std::size_t{3000000}, std::size_t{10000000}}) {
      SyntheticOptions options;
      options.ranges = ranges;
      registerTable(std::to_string(ranges), makeSyntheticTable(options));
    }
  }
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  return 0;
}
