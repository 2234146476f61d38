#pragma once

#include <memory>
#include <vector>

#include "log/log_channel.h"
#include "platform/clock.h"
#include "platform/thread.h"

namespace qel {

/// Threads that write the lines of the loggers added to the group.
///
/// A writer sleeps until there are lines. A batch that cannot be written is kept and tried again
/// once at once and then every kRetryMillis, for as long as it takes. `start`, `stop` and
/// destruction are not called at the same time as each other; everything else may be called from
/// any thread.
///
/// In a forked child nothing happens until `start`, which begins anew, without the parent's
/// loggers: the child sets its own up again, see LoggerCore::setupThread.
class ZU_LoggerThreadGroup {
 public:
  static constexpr int kRetryMillis = 1000;

  /// `clock` paces the retries and outlives the group.
  explicit ZU_LoggerThreadGroup(Clock& clock = systemClock());

  /// Stops the group.
  ~ZU_LoggerThreadGroup();
  ZU_LoggerThreadGroup(const ZU_LoggerThreadGroup&) = delete;
  ZU_LoggerThreadGroup& operator=(const ZU_LoggerThreadGroup&) = delete;

  /// Starts `threads` writer threads; does nothing while some are running. Throws ZU_Exception when
  /// none could be created.
  void start(int threads);

  /// Takes on a logger's lines; a logger is taken on once only. Loggers do this in `setupThread`.
  void add(std::shared_ptr<LogChannel> channel);

  /// Writes, on the calling thread, everything that was queued before the call. Answers false when
  /// some of it could not be written; it is kept.
  bool flush();

  /// Ends the threads and writes what is left. Loggers then write by themselves, until the next
  /// `start`.
  void stop();

 private:
  struct Shared;
  class Writer;

  bool isForkedCopy() const;
  void beginAnewAfterFork();

  std::shared_ptr<Shared> _shared;
  std::vector<std::unique_ptr<Writer>> _writers;
};

}  // namespace qel
