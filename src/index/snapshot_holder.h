#pragma once

#include <atomic>
#include <memory>

#include "platform/read_epochs.h"

namespace tolvar {

/// Holds the current one of a sequence of immutable snapshots. Readers are wait-free: a read costs
/// about a nanosecond whatever the writer does. The writer waits for readers.
///
/// Thread safety: `read` and `synchronize` may be called from any thread at any time; `publish`
/// too, several at once included. Construction and destruction are the owner's: nobody reads or
/// publishes any more when the holder is destroyed, and no Guard of it is left.
///
/// Invariants:
///  1. `_current` is null or points at a complete snapshot that nobody changes.
///  2. A guard enters its read section before it loads `_current` and leaves it after its last use
///     of what it loaded.
///  3. A snapshot is destroyed only after it left `_current` and every read section that had begun
///     by then has ended; by the thread that replaced it, or in the destructor.
///  4. So a guard sees one snapshot, whole, until it ends. Two reads of one thread never see an
///     older snapshot after a newer one.
template <class T>
class SnapshotHolder {
 public:
  /// Keeps the snapshot of one `read` alive. Ends on the thread that called `read`; may be moved
  /// within it and nested with guards of this and other holders. Holding one for long delays the
  /// writer, nobody else. Its thread calls neither `publish` nor `synchronize` meanwhile, of any
  /// holder: it would wait for itself, so the process aborts with a message.
  class Guard {
   public:
    /// Null when nothing was published yet; so is a guard that was moved from.
    const T* get() const noexcept { return _snapshot; }
    const T* operator->() const noexcept { return _snapshot; }
    const T& operator*() const noexcept { return *_snapshot; }
    explicit operator bool() const noexcept { return _snapshot != nullptr; }

    Guard(Guard&& other) noexcept
        : _section(std::move(other._section)), _snapshot(std::exchange(other._snapshot, nullptr)) {}
    Guard& operator=(Guard&& other) noexcept {
      std::swap(_section, other._section);
      std::swap(_snapshot, other._snapshot);
      return *this;
    }

   private:
    friend class SnapshotHolder;
    explicit Guard(const std::atomic<const T*>& current) noexcept
        : _section(), _snapshot(current.load(std::memory_order_seq_cst)) {}

    ReadSection _section;  // first, so that it covers the load of _snapshot
    const T* _snapshot;
  };

  SnapshotHolder() noexcept = default;
  explicit SnapshotHolder(std::unique_ptr<const T> first) noexcept : _current(first.release()) {}
  ~SnapshotHolder() { delete _current.load(std::memory_order_acquire); }
  SnapshotHolder(const SnapshotHolder&) = delete;
  SnapshotHolder& operator=(const SnapshotHolder&) = delete;

  /// The current snapshot.
  Guard read() const noexcept { return Guard(_current); }

  /// Calls `use(const T*)` with the current snapshot, which stays alive until `use` returns, and
  /// answers what it answers. The cheapest way to read: `use` takes and drops guards of its own
  /// inside itself only.
  template <class Use>
  auto with(Use use) const noexcept(noexcept(use(static_cast<const T*>(nullptr)))) {
    ReaderSlot* const slot = epochs::ownSlot();
    if (!OutermostReadSection::possible(slot)) [[unlikely]]
      return withGuard(std::move(use));
    const OutermostReadSection section(slot);
    return use(peek());
  }

  /// The current snapshot, for a caller that has begun a read section of its own and ends it after
  /// its last use.
  const T* peek() const noexcept { return _current.load(std::memory_order_seq_cst); }

  /// Makes `next` (which may be null) the current snapshot, waits until no reader holds the one
  /// before and destroys that one. New readers see `next` from the start of the wait on.
  void publish(std::unique_ptr<const T> next) noexcept {
    const std::unique_ptr<const T> retired = replace(std::move(next));
    waitForReaders();
  }

  /// As `publish`, but waits for nobody and answers the snapshot before, which readers may still
  /// hold: the caller destroys it after a `synchronize`.
  [[nodiscard]] std::unique_ptr<const T> replace(std::unique_ptr<const T> next) noexcept {
    return std::unique_ptr<const T>(_current.exchange(next.release(), std::memory_order_seq_cst));
  }

  /// Waits until all guards and read sections taken before the call, of any holder, are gone.
  static void synchronize() noexcept { waitForReaders(); }

 private:
  /// `with` for a thread's first section and for nested ones. Kept out of `with`, which is then
  /// small and calls nothing.
  template <class Use>
  [[gnu::noinline]] auto withGuard(Use use) const
      noexcept(noexcept(use(static_cast<const T*>(nullptr)))) {
    const Guard guard = read();
    return use(guard.get());
  }

  std::atomic<const T*> _current{nullptr};
};

}  // namespace tolvar
