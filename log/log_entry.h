#pragma once

#include <deque>
#include <string>
#include <string_view>
#include <utility>

#include "platform/exception.h"

namespace qel {

/// One finished line: its level and its text with the line end.
using LogEntry = std::pair<int, std::string>;

/// Lines on their way to a file, oldest first.
using LogBatch = std::deque<LogEntry>;

/// Default way of writing an entry: its text, as it stands.
struct ZU_DefaultWriteT {
  static void write(const LogEntry& entry, std::string* bytes) { bytes->append(entry.second); }
};

/// A log file that cannot be opened or written. `what` names the step and the file; the errno value
/// is `getErrCode`.
class LoggerException : public ZU_Exception {
 public:
  LoggerException(const std::string& text, int err) : ZU_Exception(text, err), _text(text) {}

  const char* what() const noexcept override { return _text.c_str(); }

 private:
  std::string _text;
};

/// Where a logger's lines end.
class LogRoller {
 public:
  virtual ~LogRoller() = default;

  /// Writes the lines of `batch` in order and removes each from it once it is written whole, so
  /// that after an exception exactly the unwritten lines are left and the call can be repeated.
  /// Throws LoggerException. May be called from any thread.
  virtual void roll(LogBatch& batch) = 0;

  /// Appends `text` at once, taking no lock: for a forked child, in which a lock may be held by a
  /// thread that does not exist there. Failures are ignored.
  virtual void appendUnlocked(std::string_view text) noexcept = 0;
};

}  // namespace qel
