#include <benchmark/benchmark.h>

#define _LGPL_SOURCE  // read sections inlined, as whoever wants them fast has them
#include <urcu/urcu-memb.h>

#include <array>
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

/// liburcu with membarrier(2), read sections inlined.
struct Liburcu {
  std::atomic<const Snapshot*> current{new Snapshot};
  ~Liburcu() { delete current.load(); }
  std::uint64_t read() const {
    static thread_local const Registration registration;
    urcu_memb_read_lock();
    const std::uint64_t value = current.load(std::memory_order_acquire)->value;
    urcu_memb_read_unlock();
    return value;
  }
  void replace() {
    const std::unique_ptr<const Snapshot> former(current.exchange(new Snapshot));
    urcu_memb_synchronize_rcu();
  }

  struct Registration {
    Registration() { urcu_memb_register_thread(); }
    ~Registration() { urcu_memb_unregister_thread(); }
  };
};

/// A hazard slot a thread: the reader announces what it loaded, in sequentially consistent order,
/// and looks whether that is still current; the writer waits until no slot has what it replaced.
struct HazardSlot {
  struct alignas(64) Slot {
    std::atomic<const Snapshot*> inUse{nullptr};
  };
  static constexpr std::size_t kThreads = 64;

  std::atomic<const Snapshot*> current{new Snapshot};
  mutable std::array<Slot, kThreads> slots;
  ~HazardSlot() { delete current.load(); }

  static std::size_t ownSlot() {
    static std::atomic<std::size_t> threads{0};
    static thread_local const std::size_t own = threads.fetch_add(1) % kThreads;
    return own;
  }

  std::uint64_t read() const {
    std::atomic<const Snapshot*>& slot = slots[ownSlot()].inUse;
    const Snapshot* snapshot = current.load();
    for (;;) {
      slot.store(snapshot);
      const Snapshot* const again = current.load();
      if (again == snapshot) break;
      snapshot = again;
    }
    const std::uint64_t value = snapshot->value;
    slot.store(nullptr, std::memory_order_release);
    return value;
  }
  void replace() {
    const std::unique_ptr<const Snapshot> former(current.exchange(new Snapshot));
    for (const Slot& slot : slots) {
      while (slot.inUse.load() == former.get()) std::this_thread::yield();
    }
  }
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
BENCHMARK(guard<Liburcu>)->Threads(1)->Threads(2);
BENCHMARK(guard<HazardSlot>)->Threads(1)->Threads(2);
BENCHMARK(guard<SharedMutex>)->Threads(1)->Threads(2);
BENCHMARK(guard<AtomicSharedPtr>)->Threads(1)->Threads(2);

}  // namespace
}  // namespace tolvar_bench
