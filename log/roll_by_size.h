#pragma once

#include <ctime>
#include <string>
#include <string_view>

#include "log/log_entry.h"
#include "log/log_file.h"
#include "platform/clock.h"
#include "platform/thread.h"

namespace qel {

/// A log file that is rolled by size.
///
/// Lines go to base path + ".log". Older files carry the numbers 1 (youngest) to maxNum - 1
/// (oldest) between base path and ".log". At most about every six seconds, and only when there is
/// something to write, the file is closed and opened again, which picks up one that was removed or
/// moved from outside, and its size is examined; so it may exceed the limit by what is written in
/// that time.
///
/// Several processes, and several loggers of one process, may write and roll one path. Every batch
/// is appended by one write call, so lines of two processes never mix. A file is renamed only by
/// the one that holds a lock on it and finds it still behind its name; the others go on writing to
/// the file they have open and follow at their next re-check. A file that cannot be renamed grows
/// on; standard error says so once.
class ZU_RollBySize {
 public:
  class RollWrapperI;

  /// Turns one entry into the bytes that are written, appending them to `bytes`.
  using WriteEntry = void (*)(const LogEntry& entry, std::string* bytes);

  explicit ZU_RollBySize(WriteEntry write) : _write(write) {}

  /// Sets the base path (without ".log"; empty: standard output), the size in bytes from which on a
  /// file is rolled, and how many files are kept, the current one included (with 1 nothing is ever
  /// rolled). May be called again to move on to another path. Throws LoggerException when a number
  /// is below 1. May be called from any thread.
  void init(const std::string& path, int maxSize, int maxNum);

  /// Clock for the re-checks. Called before the first `roll`; `clock` outlives this object.
  void setClock(Clock& clock) { _clock = &clock; }

  /// See LogRoller. A missing directory is created (mode 0755, parents too); the call that finds it
  /// missing still throws, the next one opens the file.
  void roll(LogBatch& batch);

  void appendUnlocked(std::string_view text) noexcept;

 private:
  void openFile();
  void writeToFile(LogBatch& batch);
  void writeToStandardOutput(LogBatch& batch);
  int shiftFiles();
  void noteShift(int error);
  std::string numbered(int number) const;

  const WriteEntry _write;
  Clock* _clock = &systemClock();
  ZU_ThreadMutex _mutex;

  // Guarded by _mutex.
  std::string _path;
  int _maxSize = 52428800;
  int _maxNum = 10;
  LogFile _file;
  std::time_t _lastCheck = 0;
  bool _stuck = false;  ///< the last attempt to rename the file failed
};

/// The roller as a logger's base.
class ZU_RollBySize::RollWrapperI : public LogRoller {
 public:
  explicit RollWrapperI(WriteEntry write) : _roll(write) {}

  /// See ZU_RollBySize::init.
  void init(const std::string& path, int maxSize, int maxNum) { _roll.init(path, maxSize, maxNum); }

  void roll(LogBatch& batch) override { _roll.roll(batch); }
  void appendUnlocked(std::string_view text) noexcept override { _roll.appendUnlocked(text); }

 protected:
  ZU_RollBySize _roll;
};

}  // namespace qel
