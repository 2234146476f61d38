#pragma once

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <initializer_list>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <utility>

#include "platform/clock.h"

namespace tolvar::tools {

/// One field of an event line.
struct EventField {
  EventField(const char* key, std::string_view text) : name(key), value(text) {}
  EventField(const char* key, const char* text) : name(key), value(text) {}
  EventField(const char* key, const std::string& text) : name(key), value(text) {}
  template <class Number>
  EventField(const char* key, Number number) : name(key), value(std::to_string(number)) {}

  const char* name;
  std::string value;
};

/// One line of `name=value` pairs without a line end; values are written as appendField does.
std::string formatEvent(timeval now, std::string_view level, std::string_view event,
                        std::initializer_list<EventField> fields);

/// Writes events to a file descriptor, a line each. A thread of its own writes, so that a reader
/// that has stopped reading holds nobody up: at most kMaxQueued lines wait. Later ones, and those
/// that cannot be written (a full disk), are counted, and the count is written when there is room.
/// All operations may be called from any thread.
class EventLog {
 public:
  static constexpr std::size_t kMaxQueued = 8192;

  /// `descriptor` stays open while this lives, and is not closed. `clock` outlives the log.
  explicit EventLog(int descriptor, qel::Clock& clock = qel::systemClock());

  /// Writes what waits, for at most half a second.
  ~EventLog();

  EventLog(const EventLog&) = delete;
  EventLog& operator=(const EventLog&) = delete;

  void info(std::string_view event, std::initializer_list<EventField> fields);
  void warn(std::string_view event, std::initializer_list<EventField> fields);
  void error(std::string_view event, std::initializer_list<EventField> fields);

 private:
  void push(std::string_view level, std::string_view event,
            std::initializer_list<EventField> fields);
  void run();
  void tellLoss();
  bool write(std::string line);

  const int _descriptor;
  qel::Clock& _clock;
  std::mutex _mutex;
  std::condition_variable _changed;
  // Guarded by _mutex.
  std::deque<std::string> _queue;
  std::uint64_t _lost = 0;
  bool _ending = false;

  // Used by the writer only.
  std::uint64_t _untold = 0;  ///< lines that were lost and are not told yet
  bool _isCutOff = false;     ///< the last line in the file has no end

  std::atomic<std::int64_t> _giveUpAt{INT64_MAX};  ///< steady milliseconds
  std::thread _writer;
};

}  // namespace tolvar::tools
