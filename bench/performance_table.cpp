#include <algorithm>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "bench/support/run_main.h"

/// Turns the JSON output of client_bench runs, given as files, into docs/performance.md on standard
/// output: times, ratios, and which of the goals they meet.

namespace {

using Json = nlohmann::json;

/// What was measured about one table: values by case. A time is the smallest of all repetitions.
struct Results {
  std::string ranges, tuples;
  std::map<std::string, double> values;
  std::map<std::string, std::vector<double>> ratios;  ///< of every repetition

  std::optional<double> medianRatio(const std::string& name) const {
    const auto at = ratios.find(name);
    if (at == ratios.end()) return std::nullopt;
    std::vector<double> sorted = at->second;
    std::sort(sorted.begin(), sorted.end());
    return sorted[sorted.size() / 2];
  }

  std::optional<double> find(const std::string& name) const {
    const auto at = values.find(name);
    return at == values.end() ? std::nullopt : std::optional(at->second);
  }
};

std::string withoutOptions(std::string name) {
  for (const char* option : {"/manual_time", "/real_time", "/iterations:1"}) {
    const auto at = name.find(option);
    if (at != std::string::npos) name.erase(at, std::string(option).size());
  }
  return name;
}

void addRun(const Json& run, Results* results) {
  const Json& context = run.at("context");
  results->ranges = context.at("ranges");
  results->tuples = context.at("tuples");
  for (const Json& entry : run.at("benchmarks")) {
    if (entry.value("run_type", "") != "iteration") continue;
    if (entry.value("error_occurred", false))
      throw std::runtime_error(entry.value("name", "") + ": " + entry.value("error_message", ""));
    const std::string full = entry.at("run_name");
    const std::string name = withoutOptions(full);
    if (entry.contains("ratio")) {
      results->ratios[name].push_back(entry["ratio"]);
      continue;
    }
    const bool manual = full.find("/manual_time") != std::string::npos;
    const double time = entry.at(manual ? "real_time" : "cpu_time");
    const auto [at, isNew] = results->values.emplace(name, time);
    at->second = std::min(at->second, time);
    for (const char* counter : {"p50_ns", "p99_ns", "p99.9_ns", "replacements", "bytes_per_range",
                                "before_bytes", "after_bytes", "peak_bytes"}) {
      if (!entry.contains(counter)) continue;
      const double value = entry[counter];
      const auto [place, first] = results->values.emplace(name + ":" + counter, value);
      place->second = std::min(place->second, value);
    }
  }
}

std::string number(double value) {
  char text[32];
  std::snprintf(text, sizeof text, value < 10 ? "%.2f" : value < 100 ? "%.1f" : "%.0f", value);
  return text;
}

class Page {
 public:
  explicit Page(std::map<std::string, Results> tables) : _tables(std::move(tables)) {}

  void print() {
    printTimes();
    printGoals();
  }

 private:
  using Value = std::optional<double>;

  void printTimes() {
    for (const auto& [name, results] : _tables) {
      std::cout << "\n## Times: " << name << ", " << results.ranges << " ranges, " << results.tuples
                << " attribute tuples\n\n| case | one thread | two threads |\n"
                << "|---|---:|---:|\n";
      for (const auto& [key, value] : results.values) {
        const auto threads = key.find("/threads:");
        if (threads != std::string::npos && key.compare(threads, 10, "/threads:1") != 0) continue;
        const std::string base = key.substr(0, threads);
        const Value two = results.find(base + "/threads:2");
        std::cout << "| `" << base << "` | " << number(value) << " | " << (two ? number(*two) : "")
                  << " |\n";
      }
    }
  }

  void printGoals() {
    std::cout << "\n## Goals\n\n| table | what | measured | goal | |\n|---|---|---:|---:|---|\n";
    for (const auto& [name, results] : _tables) {
      _name = name;
      _results = &results;
      const bool large = std::stoul(results.ranges) >= 3000000;
      single(large);
      if (name == "524288")
        atMost("chain / no search", results.medianRatio("ranges/chain/both"), 1.3);
      batches();
      names();
      atLeast("text: libmaxminddb / tolvar", ratio("text/mmdb", "text/tolvar"), 5);
      threads();
      memoryAndUpdates();
    }
  }

  void single(bool large) {
    atLeast("single: lower_bound / tolvar", ratio("single/lower_bound", "single/tolvar"),
            large ? 8 : 15);
    atLeast("single: libmaxminddb find / tolvar", ratio("single/mmdb_find", "single/tolvar"),
            large ? 7 : 12);
    if (large) return;
    atLeast("single: libmaxminddb find and ids / tolvar", ratio("single/mmdb_ids", "single/tolvar"),
            40);
    atMost("single / no search", ratio("single/tolvar", "single/no_search"), 3);
  }

  void batches() {
    atLeast("batch: lower_bound / tolvar", ratio("single/lower_bound", "batch/tolvar"), 30);
    atLeast("batch: libmaxminddb find and ids / tolvar", ratio("single/mmdb_ids", "batch/tolvar"),
            60);
    atMost("batch / no search", ratio("batch/tolvar", "batch/no_search"), 1.8);
  }

  void names() {
    atLeast("names as views: libmaxminddb / tolvar", ratio("names/mmdb_names", "names/views"), 35);
    atLeast("names in a reused message: libmaxminddb / tolvar",
            ratio("names/mmdb_names", "names/message"), 12);
    for (const char* count : {"1", "2"})
      atMost(std::string("message with reports / without, threads: ") + count,
             ratio("names/message_reported", "names/message", count), 2);
  }

  void threads() {
    for (const char* form :
         {"single/tolvar", "batch/tolvar", "names/views", "names/message", "text/tolvar"}) {
      const std::string base = std::string("ranges/") + form;
      const Value one = _results->find(base + "/threads:1");
      const Value two = _results->find(base + "/threads:2");
      if (one && two) atLeast(std::string("two threads / one: ") + form, 2 * *one / *two, 1.85);
    }
    for (const char* count : {"1", "2"}) {
      const std::string end = std::string("/threads:") + count;
      const Value bare = _results->find("guard<RawPointer>" + end);
      const Value guarded = _results->find("guard<HolderInScope>" + end);
      if (bare && guarded)
        atMost(std::string("guard over a raw pointer, ns, threads: ") + count, *guarded - *bare,
               0.5);
    }
  }

  void memoryAndUpdates() {
    atMost("p99.9 while replacing / idle",
           quotient("latency/replacing:p99.9_ns", "latency/idle:p99.9_ns"), 2);
    atMost("index, bytes a range beside 64 a tuple", _results->find("build/index:bytes_per_range"),
           10);
    atMost("attach / its parts alone", quotient("attach/tolvar", "attach/parts"), 2);
    atMost("publish / its parts alone", quotient("publish/tolvar", "publish/parts"), 2);
    const Value before = _results->find("update/memory:before_bytes");
    const Value after = _results->find("update/memory:after_bytes");
    const Value peak = _results->find("update/memory:peak_bytes");
    if (before && after && peak)
      atMost("peak memory of an update / (old + new)", *peak / (*before + *after), 1.25);
  }

  Value quotient(const std::string& over, const std::string& under) const {
    const Value a = _results->find(over);
    const Value b = _results->find(under);
    return a && b && *b > 0 ? Value(*a / *b) : std::nullopt;
  }

  Value ratio(const std::string& over, const std::string& under, const char* threads = "1") const {
    const std::string end = std::string("/threads:") + threads;
    return quotient("ranges/" + over + end, "ranges/" + under + end);
  }

  void atLeast(const std::string& what, Value value, double goal) {
    if (value) row(what, *value, "at least " + number(goal), *value >= goal);
  }
  void atMost(const std::string& what, Value value, double goal) {
    if (value) row(what, *value, "at most " + number(goal), *value <= goal);
  }
  void row(const std::string& what, double value, const std::string& goal, bool met) {
    std::cout << "| " << _name << " | " << what << " | " << number(value) << " | " << goal << " | "
              << (met ? "met" : "**missed**") << " |\n";
  }

  std::map<std::string, Results> _tables;
  std::string _name;
  const Results* _results = nullptr;
};

void printHead(const Json& context) {
  std::cout << R"(# Performance

This page is written by `scripts/bench.sh`; run it to have the figures of your machine.

Everything is asked of a client as a host uses it, through the operations of `TolvarAPI`, beside other
ways to answer the same questions about the same table, in one process. `lower_bound` is
std::lower_bound over the 48-byte records; `mmdb` is libmaxminddb over a database made from the same
ranges, with the entry alone (`find`), with four ids (`ids`) and with four names (`names`). `no_search`
is a limit, not a contestant: one directory word, one random leaf line, one tuple line and the copy of
the result, without any search.

Queries: `ranges` draws a range evenly and an address in it, `uniform` draws addresses, `zipf` draws
the k-th most popular range with weight 1/k, `log` adds the repeats and interleaving of an access log.
Lookup times are nanoseconds of processor time per address and thread; `attach`, `publish` and `build`
are milliseconds. Every time is the smallest of several repetitions, in which the cases take turns;
lookups are repeated in several processes over the whole run. What a chain waits for changes with the
neighbours from second to second; its goal is the median of ratios, each of the client and of the limit
measured right after it. Synthetic tables come from `bench/support/synthetic_table.h`, `geoip` is the
table of Debian's tor-geoipdb.

`attach` begins before a second client is made and ends with its first answer; its parts alone are
mapping and decoding the image and the digest. `publish` is what the client takes from the last page
of a download until both segments are complete; its parts alone are the digest and writing and copying
as many bytes as the image has. In `latency/replacing` a second thread indexes and publishes the table
again and again without a pause. `update` takes a new version over in a process that did nothing else.
A busy machine shows in every figure, in the tails most of all.

)";
  std::cout << "Machine: " << context.value("num_cpus", 0) << " processors at "
            << context.value("mhz_per_cpu", 0) << " MHz";
  for (const Json& cache : context.value("caches", Json::array())) {
    if (cache.value("type", "") != "Instruction")
      std::cout << ", level " << cache.value("level", 0) << " cache "
                << cache.value("size", 0) / 1024 << " KiB";
  }
  const Json load = context.value("load_avg", Json::array());
  if (!load.empty()) std::cout << "; load average at the start " << number(load[0]);
  std::cout << ".\n";
}

int run(int argc, char** argv) {
  if (argc < 2) {
    std::cerr << "usage: performance_table FILE.json...\n";
    return 2;
  }
  std::map<std::string, Results> tables;
  Json context;
  for (int i = 1; i < argc; ++i) {
    std::ifstream file(argv[i]);
    if (!file) throw std::runtime_error(std::string("cannot read ") + argv[i]);
    const Json run = Json::parse(file);
    if (context.is_null()) context = run.at("context");
    addRun(run, &tables[run.at("context").at("table").get<std::string>()]);
  }
  printHead(context);
  Page(std::move(tables)).print();
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  return tolvar_bench::runMain("performance_table", [&] { return run(argc, argv); });
}
