#include <malloc.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <fstream>
#include <thread>

#include "bench/cases.h"
#include "platform/exception.h"
#include "platform/md5.h"
#include "platform/shm.h"
#include "src/range_codec.h"
#include "src/segment_layout.h"

namespace tolvar_bench {
namespace {

using Seconds = std::chrono::duration<double>;

class Stopwatch {
 public:
  double seconds() const { return Seconds(std::chrono::steady_clock::now() - _begin).count(); }

 private:
  std::chrono::steady_clock::time_point _begin = std::chrono::steady_clock::now();
};

/// A second client on the image that the first keeps, from its construction to its first answer.
void attach(benchmark::State& state, Scene& scene) {
  const std::uint32_t known = scene.table().front().startIP;
  for (auto _ : state) {
    const Stopwatch watch;
    Client client(scene.service().communicator(), scene.run().keys());
    ravel::IPInfo info;
    const bool found = client.api().getIPInfo(known, &info);
    state.SetIterationTime(watch.seconds());
    if (!found || !client.api().status().fromImage)
      return state.SkipWithError("the client did not start from the image");
  }
}

/// The bytes that the content digest is taken of.
std::vector<GeneralAttribute> digestImages(const ravel::vIPProperty& table) {
  return std::vector<GeneralAttribute>(table.begin(), table.end());
}

std::string digestOf(const std::vector<GeneralAttribute>& images) {
  qel::ZU_MD5 digest;
  digest.update(images.data(), images.size() * sizeof images[0]);
  return digest.finishHex();
}

std::vector<ravel::IPAttribute> decodeAll(const IPVector& nodes) {
  std::vector<ravel::IPAttribute> ranges(nodes.getMaxIndex());
  for (std::size_t i = 0; i < ranges.size(); ++i) tolvar::decodeNode(nodes[i], &ranges[i]);
  return ranges;
}

/// The parts of an attach that nobody can do without, on one thread.
void attachParts(benchmark::State& state, Scene& scene) {
  const std::vector<GeneralAttribute> images = digestImages(scene.table());
  for (auto _ : state) {
    const Stopwatch watch;
    qel::ZU_Shm shm;
    if (!shm.attach(scene.run().keys()[0], true)) return state.SkipWithError("no image");
    IPVector nodes;
    nodes.init(static_cast<char*>(shm.getPointer()) + tolvar::kHeadBytes + tolvar::kSizeWordBytes);
    benchmark::DoNotOptimize(decodeAll(nodes));
    benchmark::DoNotOptimize(digestOf(images));
    state.SetIterationTime(watch.seconds());
  }
}

/// Alternates between two versions of the table, as the service offers them.
class Versions {
 public:
  explicit Versions(Scene& scene) : _scene(scene) {}

  /// Offers the version that is not current; answers its digest.
  std::string offerNext() {
    ravel::vIPProperty next = _scene.table();
    _other = !_other;
    if (_other) {
      for (ravel::IPProperty& range : next) range.nettype ^= 1;
    }
    return _scene.service().publish(std::move(next));
  }

 private:
  Scene& _scene;
  bool _other = false;
};

/// What the client says the publication of a downloaded table took: sort, index, encode, digest,
/// both segments.
void publish(benchmark::State& state, Scene& scene, const std::shared_ptr<Versions>& versions) {
  for (auto _ : state) {
    scene.client().takeOver(versions->offerNext());
    state.SetIterationTime(static_cast<double>(scene.api().status().publishMillis) / 1000);
  }
}

/// The parts of a publication that nobody can do without, on one thread: the digest, and writing
/// and copying as many bytes as the nodes have.
void publishParts(benchmark::State& state, Scene& scene) {
  const std::vector<GeneralAttribute> images = digestImages(scene.table());
  const std::size_t bytes = IPVector::calcMemSize(scene.table().size());
  const std::vector<char> source(bytes, 1);
  std::vector<char> first(bytes, 2);
  std::vector<char> second(bytes, 3);
  for (auto _ : state) {
    const Stopwatch watch;
    benchmark::DoNotOptimize(digestOf(images));
    std::memcpy(first.data(), source.data(), bytes);
    benchmark::ClobberMemory();
    std::memcpy(second.data(), first.data(), bytes);
    benchmark::ClobberMemory();
    state.SetIterationTime(watch.seconds());
  }
}

/// Bytes of this process's own memory that are in use; shared memory does not count.
double ownMemory() {
  std::ifstream status("/proc/self/status");
  std::string word;
  double kilobytes = 0;
  while (status >> word) {
    if (word == "RssAnon:" && status >> kilobytes) return kilobytes * 1024;
  }
  throw qel::ZU_Exception("/proc/self/status has no line RssAnon; this needs Linux 4.5 or newer");
}

double settledMemory() {
  malloc_trim(0);
  return ownMemory();
}

/// Own memory of a client that holds one version, and at most while it takes over another. Leaves
/// the scene's client behind on the version before. Memory that other cases used would be used
/// again here and not be seen, so this is a group of its own.
void peakMemory(benchmark::State& state, Scene& scene, const std::shared_ptr<Versions>& versions) {
  for (auto _ : state) {
    const double without = settledMemory();
    Client client(scene.service().communicator(), scene.run().keys());
    const double before = settledMemory() - without;
    const std::string digest = versions->offerNext();
    const double base = settledMemory() - before;

    double most = 0;
    {
      std::jthread sampler([&](const std::stop_token& stop) {
        while (!stop.stop_requested()) {
          most = std::max(most, ownMemory());
          std::this_thread::sleep_for(std::chrono::microseconds(500));
        }
      });
      client.takeOver(digest);
    }
    const double after = settledMemory() - base;
    state.counters["before_bytes"] = before;
    state.counters["after_bytes"] = after;
    state.counters["peak_bytes"] = most - base;
  }
}

void build(benchmark::State& state, Scene& scene) {
  for (auto _ : state) {
    const tolvar::RangeIndex index = tolvar::RangeIndex::build(scene.table());
    benchmark::DoNotOptimize(index.tupleCount());
  }
  const auto ranges = static_cast<double>(scene.table().size());
  const auto tuples = static_cast<double>(scene.index().tupleCount());
  state.counters["ranges"] = ranges;
  state.counters["tuples"] = tuples;
  state.counters["bytes_per_range"] =
      (static_cast<double>(scene.index().memoryBytes()) - 64 * tuples) / ranges;
}

template <class Body>
benchmark::internal::Benchmark* add(const char* name, Body body) {
  return benchmark::RegisterBenchmark(name, body)->Unit(benchmark::kMillisecond);
}

}  // namespace

void registerTables(Scene& scene) {
  const auto versions = std::make_shared<Versions>(scene);
  add("build/index", [&](benchmark::State& s) { build(s, scene); })->Iterations(1);
  add("attach/tolvar", [&](benchmark::State& s) { attach(s, scene); })
      ->Iterations(1)
      ->UseManualTime();
  add("attach/parts", [&](benchmark::State& s) { attachParts(s, scene); })
      ->Iterations(1)
      ->UseManualTime();
  add("publish/tolvar", [&scene, versions](benchmark::State& s) { publish(s, scene, versions); })
      ->Iterations(1)
      ->UseManualTime();
  add("publish/parts", [&](benchmark::State& s) { publishParts(s, scene); })
      ->Iterations(1)
      ->UseManualTime();
}

void registerMemory(Scene& scene) {
  const auto versions = std::make_shared<Versions>(scene);
  add("update/memory", [&scene, versions](benchmark::State& s) {
    peakMemory(s, scene, versions);
  })->Iterations(1);
}

}  // namespace tolvar_bench
