#pragma once

#include <sys/types.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>

#include "include/TolvarAPI.h"
#include "platform/clock.h"
#include "platform/interprocess_lock.h"
#include "src/index/lookup_snapshot.h"
#include "src/index/snapshot_holder.h"
#include "src/retry_backoff.h"
#include "src/step_errors.h"

namespace tolvar {

/// How an attempt to take the image's lock ended.
enum class ImageLock {
  Held,
  Unavailable,  ///< there is none, and nobody can have it
  Busy,         ///< somebody else kept it
  Stopping,     ///< the client was told to stop before it had it
};

/// Gives the image's lock back at the end of a scope, whether it was taken in it or not.
class ImageHold {
 public:
  explicit ImageHold(qel::InterprocessLock& lock) : _lock(lock) {}
  ~ImageHold() { _lock.release(); }
  ImageHold(const ImageHold&) = delete;
  ImageHold& operator=(const ImageHold&) = delete;

 private:
  qel::InterprocessLock& _lock;
};

/// The parts of a client that its header keeps to itself.
struct ClientInternals {
  using CodeMaps = std::unordered_map<std::uint64_t, ravel::CodeInfo>[8];

  explicit ClientInternals(qel::Clock& time) : tables(LookupSnapshot::empty()), clock(time) {}

  // What lookups read is made in two steps, by the one thread that publishes: building may run out
  // of memory and changes nothing, publishing cannot fail. A third takes away what was replaced,
  // once its readers have left it.

  /// Indexes `ranges`, which are sorted, under the names in use.
  void buildRanges(const ravel::vIPProperty& ranges);
  /// Publishes what buildRanges made.
  void publishRanges(std::size_t ranges, std::string digest) noexcept;

  /// Resolves the ranges in use with `names`.
  void buildCodes(std::shared_ptr<const CodeNames> names);
  /// Publishes what buildCodes made of the names of `maps`.
  void publishCodes(const CodeMaps& maps) noexcept;

  /// Puts `ranges` under `names`: both as found in shared memory at the start.
  void buildAll(std::shared_ptr<const RangeIndex> ranges, std::shared_ptr<const CodeNames> names);
  /// Publishes what buildAll made of an index of `ranges` ranges and the names of `maps`.
  void publishBuilt(std::size_t ranges, const CodeMaps& maps);

  /// Waits until nobody reads what the last publication replaced, and takes it away. Done while
  /// nothing is held that others wait for: a reader may stay for as long as its thread likes.
  void retire() noexcept;

  /// Notes the digest of ranges found in shared memory.
  void noteImageDigest(const std::string& digest);

  /// The common end of the three publications.
  void replaceTables() noexcept;

  /// What lookups read, never null. Published by the thread that publishes tables; read by any
  /// thread. The first member, which a lookup reaches without adding to an address.
  SnapshotHolder<LookupSnapshot> tables;

  qel::Clock& clock;

  /// Between the processes of the host: held while one publishes or starts, never during a remote
  /// call, never by a lookup.
  qel::InterprocessLock imageLock;
  /// How long a publisher and a start wait for it, in milliseconds. A publication of millions of
  /// ranges takes seconds; a holder that is stopped may take for ever.
  int publisherLockMillis = 5000;
  int starterLockMillis = 10000;

  /// The tables live in this process alone: at the start the image's lock or its segments were not
  /// to be had, or a publication found no room in them, and none could share them since. No segment
  /// is then mapped.
  bool unshared = false;

  /// The process that `initialize` or `start` was called in, 0 before; a forked copy has none of
  /// its threads, and whatever they were changing is in an unknown state.
  std::atomic<pid_t> process{0};
  bool isForkedCopy() const noexcept {
    const pid_t own = process.load(std::memory_order_relaxed);
    return own != 0 && own != getpid();
  }

  /// The client is being destroyed: a start under way on another thread ends early.
  std::atomic<bool> destroying{false};

  /// The update thread has left its loop; guarded by the client's monitor.
  bool updateEnded = false;

  /// Serialises calls of `initialize`.
  std::mutex initializing;

  /// Made by the last build and not published yet.
  std::unique_ptr<const LookupSnapshot> built;
  /// Replaced by the last publication, and perhaps still read.
  std::unique_ptr<const LookupSnapshot> retired;

  // Update thread only.
  RetryBackoff downloadRetry;
  RetryBackoff codeRetry;
  /// Steady time of the last change check, -1 before the first.
  std::int64_t lastCheckSteady = -1;
  /// Steady time at which the running download was armed.
  std::int64_t downloadArmedSteady = 0;
  /// Position of the page gathered last, and how many ranges stood before it.
  std::uint64_t pagePosition = UINT64_MAX;
  std::size_t pageBegin = 0;
  /// The furthest position that the running download has reached, also before it began anew.
  std::uint64_t furthest = 0;
  /// The service answered the last change check that it has no time.
  bool overloaded = false;
  /// The code tables of the table held could not be had, and are asked for once more.
  bool codesOwed = false;
  /// The table gathered by the running download has been taken over.
  bool tableTakenOver = false;
  /// Both data segments hold the same image; false from the start of a publication to the end of
  /// its copy, and after one that failed.
  bool imagesInSync = true;

  /// True when the last attempt at `step` has failed.
  bool isFailing(Step step) const {
    std::lock_guard<std::mutex> hold(statusMutex);
    return errors.goesOn(step);
  }

  /// Guards `status` and `errors`; taken after the client's monitor when both are held.
  mutable std::mutex statusMutex;
  TolvarStatus status;  ///< but for what `errors` knows
  StepErrors errors;
};

/// Retires at the end of a scope. Made before what the scope holds, so that this is given back
/// first.
class Retirement {
 public:
  explicit Retirement(ClientInternals& internals) : _internals(internals) {}
  ~Retirement() { _internals.retire(); }
  Retirement(const Retirement&) = delete;
  Retirement& operator=(const Retirement&) = delete;

 private:
  ClientInternals& _internals;
};

}  // namespace tolvar
