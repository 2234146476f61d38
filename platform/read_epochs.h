#pragma once

#include <atomic>
#include <cstdint>
#include <utility>

/// Read sections: how readers tell a writer, without waiting for anybody, that they may still hold
/// something it has replaced. One domain serves the whole process.
///
/// Thread safety: everything here may be called from any thread; a ReadSection ends on the thread
/// that began it. Not for signal handlers.
///
/// Invariants:
///  1. A thread's slot holds kUnlisted while it is not in the list of slots, else 0 outside read
///     sections and, inside, the value of the process epoch as the outermost section began. Only
///     its own thread writes it.
///  2. A writer first replaces, then advances the epoch. So a reader that took the epoch from after
///     the advance (acquire) sees the replacement, and a writer waits only for smaller ones.
///  3. A reader's slot store is ordered before its loads of anything replaceable. Either the store
///     is sequentially consistent (bit 0 of the epoch set), or it is a plain store and the writer
///     makes every thread of the process pass a full barrier between replacing and looking at the
///     slots (membarrier): a store before that barrier is seen by the writer, loads after it
///     see the replacement.
///  4. A slot is in the list of slots from its thread's first section until the thread ends, and
///     the list is walked and changed under its mutex only. No one holds that mutex while waiting
///     for a reader, so a thread's first section waits for a short walk at most, later ones
///     for nothing.
///  5. Slots are storage of their threads: nothing is allocated, and a process holds as many as it
///     has threads. A section that begins during or after a thread's thread_local destructors
///     enlists the slot for its own duration.
///  6. In a forked child the list holds the forking thread's slot at most.
namespace tolvar {

/// One thread's announcement; internal to ReadSection.
struct alignas(64) ReaderSlot {
  /// Added to `inner`, which then counts the outermost section too, when the end of that one also
  /// takes the slot off the list.
  static constexpr std::uint32_t kTransient = 1u << 31;

  /// As `epoch`: the slot is not in the list. Above every real epoch.
  static constexpr std::uint64_t kUnlisted = UINT64_MAX;

  std::atomic<std::uint64_t> epoch{kUnlisted};
  std::uint32_t inner = 0;  ///< sections of the thread inside the outermost one
  ReaderSlot* previous = nullptr;
  ReaderSlot* next = nullptr;
};

namespace epochs {

struct alignas(64) ProcessEpoch {
  std::atomic<std::uint64_t> value;
};

/// Bit 0: readers use sequentially consistent stores. Bits 1 to 63: the epoch, from 1 on.
extern constinit ProcessEpoch processEpoch;

/// The calling thread's slot. Of the default thread-local model: in a program it costs no more than
/// a plain variable, in a shared library a call; the faster initial-exec model would make a library
/// with much thread-local data of its own impossible to load at run time.
extern constinit thread_local ReaderSlot threadSlot;

/// Address of the calling thread's slot. In code for a shared library it is found once: compilers
/// would find it anew for each use, and that is a call. In code for a program each use reaches the
/// slot by itself, and an address would only take a register.
inline ReaderSlot* ownSlot() noexcept {
  ReaderSlot* slot = &threadSlot;
#if defined(__PIC__) && !defined(__PIE__)
  __asm__("" : "+r"(slot));
#endif
  return slot;
}

/// Begins a section of a thread whose slot is not in the list or which is in a section already.
void beginOtherwise(ReaderSlot* slot) noexcept;

/// Ends a section that is inside another one or whose end takes the slot off the list.
void endOtherwise(ReaderSlot* slot) noexcept;

/// Writes the current epoch into the slot of a thread whose outermost section begins.
inline void announce(ReaderSlot* slot) noexcept {
  const std::uint64_t epoch = processEpoch.value.load(std::memory_order_acquire);
  if ((epoch & 1u) != 0) [[unlikely]] {
    slot->epoch.store(epoch, std::memory_order_seq_cst);
  } else {
    slot->epoch.store(epoch, std::memory_order_relaxed);
    std::atomic_signal_fence(std::memory_order_seq_cst);
  }
}

}  // namespace epochs

/// While it lives, nothing that its thread could reach when it began and that a writer retires with
/// waitForReaders() goes away. Sections nest; beginning and ending one takes about a nanosecond
/// and never waits, allocates or calls the operating system, except for a thread's first.
/// May be moved within its thread.
class ReadSection {
 public:
  ReadSection() noexcept : _slot(epochs::ownSlot()) {
    // No counting in the outermost section: a count that is changed twice a lookup would tie
    // every lookup to the one before. An unlisted slot fails the one test that is needed anyway.
    if (_slot->epoch.load(std::memory_order_relaxed) == 0) [[likely]] {
      epochs::announce(_slot);
    } else {
      epochs::beginOtherwise(_slot);
    }
  }

  /// The outermost section of a thread for which OutermostReadSection::possible(slot).
  static ReadSection outermost(ReaderSlot* slot) noexcept { return ReadSection(slot); }

  ReadSection(ReadSection&& other) noexcept : _slot(std::exchange(other._slot, nullptr)) {}
  ReadSection& operator=(ReadSection&& other) noexcept {
    std::swap(_slot, other._slot);
    return *this;
  }

  ~ReadSection() {
    if (_slot == nullptr) return;
    if (_slot->inner == 0) [[likely]] {
      _slot->epoch.store(0, std::memory_order_release);
    } else {
      epochs::endOtherwise(_slot);
    }
  }

 private:
  explicit ReadSection(ReaderSlot* slot) noexcept : _slot(slot) { epochs::announce(_slot); }

  ReaderSlot* _slot;
};

/// The read section of a thread that is in no other, ending in the block where it begins: sections
/// of its thread that begin meanwhile end before it. Knowing all that makes it cheaper than a
/// ReadSection, and leaves a function that uses it without any call.
class OutermostReadSection {
 public:
  /// Whether the thread of `slot`, the calling one, may begin one: it is in no section, and has
  /// been in one before.
  static bool possible(const ReaderSlot* slot) noexcept {
    return slot->epoch.load(std::memory_order_relaxed) == 0;
  }

  explicit OutermostReadSection(ReaderSlot* slot) noexcept : _slot(slot) {
    epochs::announce(_slot);
  }
  ~OutermostReadSection() { _slot->epoch.store(0, std::memory_order_release); }
  OutermostReadSection(const OutermostReadSection&) = delete;
  OutermostReadSection& operator=(const OutermostReadSection&) = delete;

 private:
  ReaderSlot* _slot;
};

/// Aborts the process when the calling thread is inside a read section: for what would wait for
/// readers, or take away what they read.
void requireNoReadSection() noexcept;

/// Waits until every read section that had begun before the call has ended, on whatever thread.
/// What the caller unlinked before the call is then out of every reader's reach. Sections that
/// begin later are not waited for. Several threads may wait at once.
///
/// A thread that is inside a read section would wait for itself: that is a programming error and
/// aborts the process.
void waitForReaders() noexcept;

}  // namespace tolvar
