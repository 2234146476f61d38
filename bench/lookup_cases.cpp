#include <arpa/inet.h>
#include <maxminddb.h>
#include <time.h>

#include <functional>

#include "bench/cases.h"
#include "bench/support/queries.h"

namespace tolvar_bench {
namespace {

constexpr std::size_t kQueries = std::size_t{1} << 20;
constexpr std::size_t kBatch = 256;

/// Lookups that go before the measured ones, so that each case finds in the caches what it has read
/// itself, not what the case before it left: enough to come by nearly all tuples of a table of half
/// a million ranges.
constexpr std::size_t kWarmUp = std::size_t{1} << 18;

/// Two threads do not ask the same addresses at the same time.
std::size_t firstQuery(const benchmark::State& state) {
  return kQueries / static_cast<std::size_t>(state.threads()) *
         static_cast<std::size_t>(state.thread_index());
}

/// `look(query)` answers whether it found something and leaves that where it is kept alive.
template <class Queries, class Look>
void each(benchmark::State& state, const Queries& queries, Look look) {
  std::size_t at = firstQuery(state);
  const auto lookNext = [&] {
    bool found = look(queries[at]);
    benchmark::DoNotOptimize(found);
    at = (at + 1) & (kQueries - 1);
  };
  for (std::size_t i = 0; i < kWarmUp; ++i) lookNext();
  for (auto _ : state) lookNext();
}

template <class Queries, class Look>
void eachInfo(benchmark::State& state, const Queries& queries, Look look) {
  ravel::IPInfo info;
  each(state, queries, [&](const auto& query) {
    const bool found = look(query, &info);
    benchmark::DoNotOptimize(info);
    return found;
  });
}

/// A chain of lookups: the next address depends on the answer before it, so no two overlap. It is
/// read where the answer was copied to: a contestant that was inlined would skip the copy
/// otherwise.
template <class Look>
class Chain {
 public:
  explicit Chain(Look look) : _look(look) {}

  bool operator()(std::uint32_t ip) {
    const bool found = _look(ip ^ _carry, &_info);
    benchmark::DoNotOptimize(_info);
    _carry = static_cast<std::uint32_t>(static_cast<std::uint64_t>(_info.district) >> 62);
    benchmark::DoNotOptimize(_carry);
    return found;
  }

 private:
  Look _look;
  std::uint32_t _carry = 0;
  ravel::IPInfo _info;
};

/// Seconds of processor time that `look` takes for the queries behind those that warm it up.
template <class Look>
double secondsOf(const std::vector<std::uint32_t>& queries, Look look) {
  const auto run = [&](std::size_t begin, std::size_t end) {
    for (std::size_t i = begin; i < end; ++i) {
      bool found = look(queries[i]);
      benchmark::DoNotOptimize(found);
    }
  };
  const auto now = [] {
    timespec time{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9;
  };
  run(0, kWarmUp);
  const double begin = now();
  run(kWarmUp, kWarmUp + kWarmUp / 2);
  return now() - begin;
}

/// What a chain waits for depends on the neighbours of this second, so that the smallest times of
/// two contestants may come from different worlds. Here one is measured right after the other.
template <class Look, class Other>
void ratioOfChains(benchmark::State& state, const std::vector<std::uint32_t>& queries, Look look,
                   Other other) {
  for (auto _ : state)
    state.counters["ratio"] = secondsOf(queries, Chain(look)) / secondsOf(queries, Chain(other));
}

template <class Look>
void batch(benchmark::State& state, const std::vector<std::uint32_t>& queries, Look look) {
  std::size_t at = firstQuery(state);
  std::vector<ravel::IPInfo> infos(kBatch);
  std::vector<std::uint8_t> found(kBatch);
  const auto lookNext = [&] {
    look(std::span(queries).subspan(at, kBatch), infos.data(), found.data());
    benchmark::ClobberMemory();
    at = (at + kBatch) & (kQueries - 1);
  };
  for (std::size_t i = 0; i < kWarmUp; i += kBatch) lookNext();
  while (state.KeepRunningBatch(kBatch)) lookNext();
}

using Case = std::function<void(benchmark::State&)>;

class Registrar {
 public:
  Registrar(Scene& scene, std::string name, std::vector<std::uint32_t> queries)
      : _scene(scene),
        _prefix(std::move(name) + "/"),
        _queries(std::make_shared<const std::vector<std::uint32_t>>(std::move(queries))) {}

  void addNumeric() {
    add("single/tolvar", 2, [api = &_scene.api(), q = _queries](benchmark::State& s) {
      eachInfo(s, *q, [=](std::uint32_t ip, auto* info) { return api->getIPInfo(ip, info); });
    });
    add("single/bare_index", 1, [index = &_scene.index(), q = _queries](benchmark::State& s) {
      eachInfo(s, *q, [=](std::uint32_t ip, auto* info) { return index->lookup(ip, info); });
    });
    add("single/no_search", 1, [limit = &_scene.limit(), q = _queries](benchmark::State& s) {
      eachInfo(s, *q, [=](std::uint32_t ip, auto* info) { return limit->lookup(ip, info); });
    });
    add("single/lower_bound", 1, [t = &_scene.lowerBound(), q = _queries](benchmark::State& s) {
      eachInfo(s, *q, [=](std::uint32_t ip, auto* info) { return t->lookup(ip, info); });
    });
    add("single/mmdb_find", 1, [m = &_scene.mmdb(), q = _queries](benchmark::State& s) {
      each(s, *q, [=](std::uint32_t ip) {
        auto result = m->find(ip);
        benchmark::DoNotOptimize(result);
        return result.found_entry;
      });
    });
    add("single/mmdb_ids", 1, [m = &_scene.mmdb(), q = _queries](benchmark::State& s) {
      std::uint32_t ids[4];
      each(s, *q, [&](std::uint32_t ip) {
        const bool found = m->findIds(ip, ids);
        benchmark::DoNotOptimize(ids);
        return found;
      });
    });
    addBatch();
  }

  void addBatch() {
    add("batch/tolvar", 2, [api = &_scene.api(), q = _queries](benchmark::State& s) {
      batch(s, *q, [=](auto... a) { api->getIPInfoBatch(a...); });
    });
    add("batch/no_search", 1, [limit = &_scene.limit(), q = _queries](benchmark::State& s) {
      batch(s, *q, [=](auto... a) { limit->lookupBatch(a...); });
    });
  }

  void addChain() {
    const auto tolvar = [api = &_scene.api()](std::uint32_t ip, auto* info) {
      return api->getIPInfo(ip, info);
    };
    const auto noSearch = [limit = &_scene.limit()](std::uint32_t ip, auto* info) {
      return limit->lookup(ip, info);
    };
    const auto lowerBound = [table = &_scene.lowerBound()](std::uint32_t ip, auto* info) {
      return table->lookup(ip, info);
    };
    add("chain/tolvar", 1, [=, q = _queries](auto& s) { each(s, *q, Chain(tolvar)); });
    add("chain/no_search", 1, [=, q = _queries](auto& s) { each(s, *q, Chain(noSearch)); });
    add("chain/lower_bound", 1, [=, q = _queries](auto& s) { each(s, *q, Chain(lowerBound)); });
    const Case both = [=, q = _queries](auto& s) { ratioOfChains(s, *q, tolvar, noSearch); };
    benchmark::RegisterBenchmark((_prefix + "chain/both").c_str(), both)->Iterations(1);
  }

  void addNames() {
    add("names/views", 2, [api = &_scene.api(), q = _queries](benchmark::State& s) {
      // As many as the others read.
      std::string_view names[4];
      each(s, *q, [&](std::uint32_t ip) {
        const TolvarReader reader = api->read();
        IPNameView view;
        const bool found = reader.getIPInfo(ip, &view);
        names[0] = view.country();
        names[1] = view.province();
        names[2] = view.city();
        names[3] = view.oper();
        benchmark::DoNotOptimize(names);
        return found;
      });
    });
    addMessage("names/message", &_scene.api());
    addMessage("names/message_reported", &_scene.reportingApi());
    add("names/mmdb_names", 1, [m = &_scene.mmdb(), q = _queries](benchmark::State& s) {
      std::string names[4];
      each(s, *q, [&](std::uint32_t ip) {
        const bool found = m->findNames(ip, names);
        benchmark::DoNotOptimize(names);
        return found;
      });
    });
  }

  void addText() {
    const auto texts = std::make_shared<std::vector<std::string>>();
    for (const std::uint32_t ip : *_queries) {
      const in_addr address{htonl(ip)};
      char text[INET_ADDRSTRLEN];
      texts->emplace_back(inet_ntop(AF_INET, &address, text, sizeof text));
    }
    add("text/tolvar", 2, [api = &_scene.api(), texts](benchmark::State& s) {
      eachInfo(s, *texts,
               [=](const std::string& ip, auto* info) { return api->getIPInfoFromStr(ip, info); });
    });
    add("text/mmdb", 1, [m = &_scene.mmdb(), texts](benchmark::State& s) {
      each(s, *texts, [=](const std::string& ip) {
        auto result = m->findText(ip.c_str());
        benchmark::DoNotOptimize(result);
        return result.found_entry;
      });
    });
  }

 private:
  void addMessage(const std::string& name, TolvarAPI* api) {
    add(name, 2, [=, q = _queries](benchmark::State& s) {
      IPHumanMessage message;
      each(s, *q, [&](std::uint32_t ip) {
        const bool found = api->getIPInfo(ip, &message);
        benchmark::DoNotOptimize(message);
        return found;
      });
    });
  }

  void add(const std::string& name, int mostThreads, const Case& body) {
    for (int threads = 1; threads <= mostThreads; ++threads)
      benchmark::RegisterBenchmark((_prefix + name).c_str(), body)->Threads(threads);
  }

  Scene& _scene;
  std::string _prefix;
  std::shared_ptr<const std::vector<std::uint32_t>> _queries;
};

}  // namespace

void registerLookups(Scene& scene) {
  Registrar ranges(scene, "ranges", queriesOverRanges(scene.table(), kQueries, 1));
  ranges.addNumeric();
  ranges.addChain();
  ranges.addNames();
  ranges.addText();
  Registrar(scene, "uniform", uniformQueries(kQueries, 2)).addNumeric();
  Registrar(scene, "zipf", zipfQueries(scene.table(), kQueries, 3)).addNumeric();
  Registrar(scene, "log", logLikeQueries(scene.table(), kQueries, 4)).addNumeric();
}

}  // namespace tolvar_bench
