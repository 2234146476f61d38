#include <benchmark/benchmark.h>

#include <atomic>
#include <memory>
#include <mutex>
#include <shared_mutex>
#include <thread>

#include "src/index/snapshot_holder.h"

/// What it costs a reader to hold a snapshot while a writer may replace it, with one thread and
/// with two, beside a bare pointer that nobody could ever replace. A writer replaces the snapshot
/// all through, every 10 ms.

namespace tolvar_bench {
namespace {

struct Snapshot {
  std::uint64_t value = 42;
};

struct RawPointer {
  std::atomic<const Snapshot*> current{new Snapshot};
  ~RawPointer() { delete current.load(); }
  std::uint64_t read() const { return current.load(std::memory_order_acquire)->value; }
  void replace() {}
};

struct Holder {
  tolvar::SnapshotHolder<Snapshot> current{std::make_unique<const Snapshot>()};
  std::uint64_t read() const { return current.read()->value; }
  void replace() { current.publish(std::make_unique<const Snapshot>()); }
};

/// As the client's own operations read.
struct HolderInScope {
  tolvar::SnapshotHolder<Snapshot> current{std::make_unique<const Snapshot>()};
  std::uint64_t read() const {
    return current.with([](const Snapshot* snapshot) noexcept { return snapshot->value; });
  }
  void replace() { current.publish(std::make_unique<const Snapshot>()); }
};

struct SharedMutex {
  mutable std::shared_mutex mutex;
  std::unique_ptr<const Snapshot> current = std::make_unique<const Snapshot>();
  std::uint64_t read() const {
    const std::shared_lock lock(mutex);
    return current->value;
  }
  void replace() {
    auto next = std::make_unique<const Snapshot>();
    const std::unique_lock lock(mutex);
    current.swap(next);
  }
};

struct AtomicSharedPtr {
  std::atomic<std::shared_ptr<const Snapshot>> current{std::make_shared<const Snapshot>()};
  std::uint64_t read() const { return current.load(std::memory_order_acquire)->value; }
  void replace() { current.store(std::make_shared<const Snapshot>()); }
};

template <class Guarded>
void guard(benchmark::State& state) {
  static std::unique_ptr<Guarded> guarded;
  static std::jthread writer;
  if (state.thread_index() == 0) {
    guarded = std::make_unique<Guarded>();
    writer = std::jthread([](const std::stop_token& stop) {
      while (!stop.stop_requested()) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
        guarded->replace();
      }
    });
  }
  for (auto _ : state) benchmark::DoNotOptimize(guarded->read());
  if (state.thread_index() == 0) writer = std::jthread();
}

BENCHMARK(guard<RawPointer>)->Threads(1)->Threads(2);
BENCHMARK(guard<Holder>)->Threads(1)->Threads(2);
BENCHMARK(guard<HolderInScope>)->Threads(1)->Threads(2);
BENCHMARK(guard<SharedMutex>)->Threads(1)->Threads(2);
BENCHMARK(guard<AtomicSharedPtr>)->Threads(1)->Threads(2);

}  // namespace
}  // namespace tolvar_bench
