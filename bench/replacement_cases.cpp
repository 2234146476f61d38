#include <algorithm>
#include <chrono>
#include <iterator>
#include <thread>

#include "bench/cases.h"
#include "bench/support/queries.h"
#include "tests/support/client_test_access.h"

namespace tolvar_bench {
namespace {

constexpr std::size_t kQueries = std::size_t{1} << 20;
constexpr auto kDuration = std::chrono::seconds(2);

/// How often each latency occurred; those of kMost nanoseconds and more count as that.
class Latencies {
 public:
  void add(std::chrono::nanoseconds latency) noexcept {
    ++_counts[static_cast<std::size_t>(std::clamp<std::int64_t>(latency.count(), 0, kMost))];
    ++_total;
  }

  /// The latency that a share of `quantile` of all does not exceed, in nanoseconds.
  double quantile(double quantile) const noexcept {
    const auto wanted = static_cast<std::uint64_t>(quantile * static_cast<double>(_total));
    std::uint64_t seen = 0;
    for (std::size_t at = 0; at < _counts.size(); ++at) {
      seen += _counts[at];
      if (seen > wanted) return static_cast<double>(at);
    }
    return static_cast<double>(kMost);
  }

 private:
  static constexpr std::int64_t kMost = 1000000;
  std::vector<std::uint64_t> _counts = std::vector<std::uint64_t>(kMost + 1);
  std::uint64_t _total = 0;
};

/// Does what the update thread does when it publishes, index and names anew, again and again. The
/// client's own update thread has nothing to do meanwhile.
void replaceUntil(const std::stop_token& stop, Scene& scene, std::uint64_t* replacements) {
  tolvar::ClientTestAccess access(scene.api());
  tolvar::ClientInternals::CodeMaps maps;
  for (int k = 0; k < 8; ++k) maps[k] = access.codeQueryMap(k);
  while (!stop.stop_requested()) {
    access.publishAll(scene.table(), maps);
    ++*replacements;
  }
}

void measure(benchmark::State& state, Scene& scene, bool replacing) {
  const std::vector<std::uint32_t> queries = queriesOverRanges(scene.table(), kQueries, 5);
  Latencies latencies;
  std::uint64_t replacements = 0;
  for (auto _ : state) {
    std::jthread writer;
    if (replacing) {
      writer = std::jthread(
          [&](const std::stop_token& stop) { replaceUntil(stop, scene, &replacements); });
    }
    ravel::IPInfo info;
    std::size_t at = 0;
    const auto end = std::chrono::steady_clock::now() + kDuration;
    auto before = std::chrono::steady_clock::now();
    while (before < end) {
      benchmark::DoNotOptimize(scene.api().getIPInfo(queries[at], &info));
      benchmark::DoNotOptimize(info);
      const auto after = std::chrono::steady_clock::now();
      latencies.add(after - before);
      before = after;
      at = (at + 1) & (kQueries - 1);
    }
  }
  state.counters["p50_ns"] = latencies.quantile(0.5);
  state.counters["p99_ns"] = latencies.quantile(0.99);
  state.counters["p99.9_ns"] = latencies.quantile(0.999);
  // A counter that is 0 in all repetitions would have no relative deviation to report.
  if (replacing) state.counters["replacements"] = static_cast<double>(replacements);
}

}  // namespace

void registerReplacement(Scene& scene) {
  for (const bool replacing : {false, true}) {
    const std::string name = std::string("latency/") + (replacing ? "replacing" : "idle");
    benchmark::RegisterBenchmark(
        name.c_str(), [&scene, replacing](benchmark::State& s) { measure(s, scene, replacing); })
        ->Iterations(1)
        ->UseRealTime();
  }
}

}  // namespace tolvar_bench
