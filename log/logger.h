#pragma once

#include <atomic>
#include <memory>
#include <ostream>
#include <sstream>
#include <string>
#include <string_view>

#include "log/log_channel.h"
#include "log/log_entry.h"
#include "log/log_header.h"
#include "log/logger_thread_group.h"
#include "log/roll_by_size.h"
#include "platform/clock.h"

namespace qel {

/// One log line being composed. Takes whatever a std::ostream takes, manipulators included. The
/// line is handed on, whole, when the object is destroyed, which for `logger.info() << text <<
/// std::endl;` is the end of the statement; a missing line end is added. Every line has a buffer of
/// its own, so composing one line may log another. Used by one thread.
class LoggerStream {
 public:
  /// Discards everything.
  LoggerStream() = default;

  LoggerStream(std::shared_ptr<LogChannel> channel, int level, std::string_view header);
  LoggerStream(LoggerStream&&) noexcept = default;
  LoggerStream& operator=(LoggerStream&&) = delete;
  ~LoggerStream();

  /// False when what is streamed is discarded.
  bool isOpen() const { return _line != nullptr; }

  template <class T>
  LoggerStream& operator<<(const T& value) {
    if (_line) _line->text << value;
    return *this;
  }

  LoggerStream& operator<<(std::ostream& (*manipulator)(std::ostream&)) {
    if (_line) manipulator(_line->text);
    return *this;
  }

 private:
  struct Line {
    std::shared_ptr<LogChannel> channel;
    int level;
    std::ostringstream text;
  };
  std::unique_ptr<Line> _line;
};

/// What every logger is, whatever it writes to: level, header, and the way to the writer threads.
/// Set-up (setSeparator, setClock) happens before the first line; everything else may be called
/// from any thread at any time.
class LoggerCore {
 public:
  LoggerCore(const LoggerCore&) = delete;
  LoggerCore& operator=(const LoggerCore&) = delete;

  /// Switches header bits (kHeaderTime and so on) on or off. Only kHeaderTime is on at first.
  void modFlag(int bits, bool on) { on ? _flags.fetch_or(bits) : _flags.fetch_and(~bits); }

  /// True when all of `bits` are on.
  bool hasFlag(int bits) const { return (_flags.load() & bits) == bits; }

  /// The highest level that is written; kLogInfo at first, which is all of them.
  void setLogLevel(int level) { _level.store(level); }
  int getLogLevel() const { return _level.load(); }

  /// Time in square brackets or not; on at first.
  void setBrackets(bool on) { _brackets.store(on); }

  /// Text behind every piece of a header; "|" at first.
  void setSeparator(std::string separator) { _separator = std::move(separator); }

  /// Lines go through `group` from now on. Until then, once the group has stopped, and with null,
  /// each is written by the thread that logs it.
  ///
  /// A forked child whose parent has not written a line with this logger makes it its own so,
  /// before it starts threads that log. The copy of a logger that was in use goes on writing each
  /// line at once and never rolls the file, because its locks may belong to threads of the parent.
  void setupThread(ZU_LoggerThreadGroup* group);

  /// A line of the given level, its header already written; one that discards everything when the
  /// logger's level is below `level`.
  LoggerStream stream(int level);
  LoggerStream log(int level) { return stream(level); }
  LoggerStream any() { return stream(kLogAny); }
  LoggerStream error() { return stream(kLogError); }
  LoggerStream warn() { return stream(kLogWarn); }
  LoggerStream debug() { return stream(kLogDebug); }
  LoggerStream info() { return stream(kLogInfo); }

 protected:
  explicit LoggerCore(LogRoller& roller);
  ~LoggerCore();
  void setCoreClock(Clock& clock);

 private:
  std::string header(int level) const;
  std::shared_ptr<LogChannel> makeChannel();
  void beginAnewAfterFork();

  LogRoller& _roller;
  std::atomic<int> _level{kLogInfo};
  std::atomic<int> _flags{kHeaderTime};
  std::atomic<bool> _brackets{true};
  std::string _separator = "|";
  Clock* _clock = &systemClock();
  std::shared_ptr<LogChannel> _channel;
};

/// A logger that writes entries as `WriteT` says to what `RollPolicy` keeps.
///
/// May be destroyed before or after its thread group; either way everything logged before is
/// written.
template <class WriteT, class RollPolicy>
class ZU_Logger : public RollPolicy::RollWrapperI, public LoggerCore {
 public:
  // LoggerCore is the later base and so is destroyed first: it lets go of the roller while that is
  // still whole.
  ZU_Logger()
      : RollPolicy::RollWrapperI(&WriteT::write), LoggerCore(static_cast<LogRoller&>(*this)) {}

  /// Clock for header times and rolling. Called before the first line; `clock` outlives the logger.
  void setClock(Clock& clock) {
    this->_roll.setClock(clock);
    setCoreClock(clock);
  }
};

}  // namespace qel
