#pragma once

#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "log/log_entry.h"
#include "log/thread_queue.h"
#include "platform/clock.h"
#include "platform/thread.h"

namespace qel {

/// Wakes the writer threads of a group.
class LogSignal {
 public:
  virtual ~LogSignal() = default;

  /// Lines are waiting. May be called from any thread.
  virtual void notify() = 0;
};

/// The way of one logger's lines from its callers to its roller: a bounded queue, and the batch
/// that is being written. Shared by the logger, its thread group and the lines being composed, so
/// that they may be destroyed in any order. All operations may be called from any thread.
///
/// In a child that was forked while this object existed, lines go straight to the file and nothing
/// else happens: what was queued at that moment belongs to the parent, and any lock may be held by
/// a thread that the child does not have. A logger that wants more there makes a new channel.
class LogChannel {
 public:
  /// Lines and bytes of text that may wait; beyond either the newest lines are dropped, and a line
  /// that says how many is written in their place. As much again may be held by a batch that could
  /// not be written yet.
  static constexpr std::size_t kMaxLines = 65536;
  static constexpr std::size_t kMaxBytes = 4 * 1024 * 1024;

  /// Milliseconds between two complaints about one logger on standard error.
  static constexpr std::int64_t kComplaintIntervalMillis = 60000;

  /// Gives the header of a line of `level`.
  using Header = std::function<std::string(int level)>;

  /// `roller` lives until `close`.
  LogChannel(LogRoller& roller, Header header);

  /// Called before the first line; `clock` lives until `close`.
  void setClock(Clock& clock) { _clock = &clock; }

  /// Queues a line for the thread group, or writes it at once when there is none.
  void submit(int level, std::string text);

  /// Writes everything that was queued before the call. Answers false when that failed; the lines
  /// are kept and written by a later call.
  bool drain();

  /// From now on `signal` tells a thread that calls `drain`; null: `submit` writes by itself.
  void attach(std::shared_ptr<LogSignal> signal);

  /// Writes what is left and lets go of the roller. Lines that cannot be written are lost, and
  /// standard error says how many.
  void close();

  /// True in a child that was forked while this object existed.
  bool isForkedCopy() const;

  /// True while no line has gone to the roller. A forked child may then use the roller as if it
  /// were new: no thread of the parent was in it.
  bool isRollerUnused() const { return !_rollerUsed; }

  bool isClosed() const { return _roller.load(std::memory_order_acquire) == nullptr; }

 private:
  bool drainLocked();
  void noteDropped();
  bool rollPending(LogRoller& roller);
  bool tryRoll(LogRoller& roller, std::string* failure);
  void complain(const std::string& failure);

  const pid_t _process;
  const Header _header;
  Clock* _clock = &systemClock();
  std::atomic<LogRoller*> _roller;
  std::atomic<bool> _rollerUsed{false};
  ZU_ThreadQueue<LogEntry> _queue{kMaxLines, kMaxBytes};

  ZU_ThreadMutex _signalMutex;
  std::shared_ptr<LogSignal> _signal;  // guarded by _signalMutex

  ZU_ThreadMutex _drainMutex;  // held while writing: keeps the order of the lines
  // Guarded by _drainMutex.
  LogBatch _pending;
  std::uint64_t _dropped = 0;  // lines that no line tells of yet
  std::int64_t _nextComplaint = INT64_MIN;
};

}  // namespace qel
