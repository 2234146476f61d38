#include "platform/read_epochs.h"

#include <pthread.h>

#include <algorithm>
#include <chrono>
#include <mutex>
#include <thread>

#include "platform/assertion.h"
#include "platform/membarrier.h"

#if defined(__SANITIZE_THREAD__)
#define TOLVAR_THREAD_SANITIZER 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define TOLVAR_THREAD_SANITIZER 1
#endif
#endif

namespace tolvar {
namespace epochs {

constinit ProcessEpoch processEpoch{3};
constinit thread_local ReaderSlot threadSlot;

namespace {

#ifdef TOLVAR_THREAD_SANITIZER
// The thread sanitizer does not know membarrier; sequentially consistent stores it follows.
constexpr bool kMayUseBarrier = false;
#else
constexpr bool kMayUseBarrier = true;
#endif

/// The list of slots. Constant-initialised and never destroyed, because sections may begin before
/// and after the program's static objects live.
struct SlotList {
  std::mutex mutex;
  // Protected by mutex:
  ReaderSlot* head = nullptr;
  bool prepared = false;

  // Written once, before the first slot is in the list.
  std::atomic<bool> usesBarrier{false};
};

constinit SlotList list;
constinit thread_local bool threadEnding = false;

void link(ReaderSlot* slot) noexcept {
  slot->previous = nullptr;
  slot->next = list.head;
  if (list.head != nullptr) list.head->previous = slot;
  list.head = slot;
}

void unlink(ReaderSlot* slot) noexcept {
  (slot->previous != nullptr ? slot->previous->next : list.head) = slot->next;
  if (slot->next != nullptr) slot->next->previous = slot->previous;
}

void delist(ReaderSlot* slot) noexcept {
  const std::lock_guard lock(list.mutex);
  unlink(slot);
  slot->epoch.store(ReaderSlot::kUnlisted, std::memory_order_relaxed);
}

/// Takes the slot off the list as the thread ends, or leaves that to the section it is still in.
struct ThreadEnd {
  ~ThreadEnd() {
    threadEnding = true;
    const std::uint64_t epoch = threadSlot.epoch.load(std::memory_order_relaxed);
    if (epoch == ReaderSlot::kUnlisted) return;
    if (epoch != 0) {
      threadSlot.inner += ReaderSlot::kTransient + 1;
      return;
    }
    delist(&threadSlot);
  }
  void arm() noexcept {}
};

thread_local ThreadEnd threadEnd;

void lockForFork() { list.mutex.lock(); }

void unlockInParent() { list.mutex.unlock(); }

/// Only the forking thread goes on in the child.
void restartInChild() {
  list.head = nullptr;
  if (threadSlot.epoch.load(std::memory_order_relaxed) != ReaderSlot::kUnlisted) link(&threadSlot);
  // A registration that was not inherited shows as a failing barrier, which costs time, not safety.
  if (list.usesBarrier.load(std::memory_order_relaxed)) qel::registerProcessBarrier();
  list.mutex.unlock();
}

/// Once per process, before the first section and before the first wait. The caller holds the
/// mutex.
void prepare() noexcept {
  if (list.prepared) return;
  list.prepared = true;
  pthread_atfork(lockForFork, unlockInParent, restartInChild);
  if (kMayUseBarrier && qel::registerProcessBarrier()) {
    list.usesBarrier.store(true, std::memory_order_relaxed);
    processEpoch.value.fetch_and(~std::uint64_t{1}, std::memory_order_seq_cst);
  }
}

/// Makes plain slot stores of other threads visible.
void passBarrier() noexcept {
  if (!list.usesBarrier.load(std::memory_order_relaxed) || qel::processBarrier()) return;
  // The kernel has begun to refuse (a filter on system calls, say). Readers change over to ordered
  // stores; a plain one that is under way leaves its processor's store buffer in well under a
  // microsecond, and at the latest with the thread's next interrupt.
  processEpoch.value.fetch_or(1, std::memory_order_seq_cst);
  std::this_thread::sleep_for(std::chrono::milliseconds(10));
}

bool readersRemain(std::uint64_t target) noexcept {
  const std::lock_guard lock(list.mutex);
  for (const ReaderSlot* slot = list.head; slot != nullptr; slot = slot->next) {
    const std::uint64_t epoch = slot->epoch.load(std::memory_order_seq_cst);
    if (epoch != 0 && epoch >> 1 < target) return true;
  }
  return false;
}

/// Sections last nanoseconds as a rule, so the first rounds only give way; whoever holds one for
/// long is asked at most a thousand times a second.
void backOff(unsigned round) {
  constexpr unsigned kYields = 50;
  if (round < kYields) return std::this_thread::yield();
  const auto delay = std::chrono::microseconds(50) * (round - kYields + 1);
  std::this_thread::sleep_for(
      std::min<std::chrono::microseconds>(delay, std::chrono::milliseconds(1)));
}

/// Puts the slot of a thread that is in no section into the list.
void enlist(ReaderSlot* slot) noexcept {
  if (!threadEnding) threadEnd.arm();
  const std::lock_guard lock(list.mutex);
  prepare();
  slot->epoch.store(0, std::memory_order_relaxed);
  link(slot);
}

}  // namespace

void beginOtherwise(ReaderSlot* slot) noexcept {
  if (slot->epoch.load(std::memory_order_relaxed) != ReaderSlot::kUnlisted) {
    ++slot->inner;
    return;
  }
  enlist(slot);
  announce(slot);
  if (threadEnding) slot->inner = ReaderSlot::kTransient + 1;
}

void endOtherwise(ReaderSlot* slot) noexcept {
  if (--slot->inner != ReaderSlot::kTransient) return;
  slot->inner = 0;
  slot->epoch.store(0, std::memory_order_release);
  delist(slot);
}

}  // namespace epochs

void requireNoReadSection() noexcept {
  const std::uint64_t own = epochs::threadSlot.epoch.load(std::memory_order_relaxed);
  if (own != 0 && own != ReaderSlot::kUnlisted) {
    qel::assertionFailed("the waiting thread is in no read section", __FILE__, __LINE__,
                         __PRETTY_FUNCTION__);
  }
}

void waitForReaders() noexcept {
  requireNoReadSection();
  {
    const std::lock_guard lock(epochs::list.mutex);
    epochs::prepare();
  }
  const std::uint64_t target =
      (epochs::processEpoch.value.fetch_add(2, std::memory_order_seq_cst) >> 1) + 1;
  epochs::passBarrier();
  for (unsigned round = 0; epochs::readersRemain(target); ++round) epochs::backOff(round);
}

}  // namespace tolvar
