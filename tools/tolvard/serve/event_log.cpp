#include "tools/tolvard/serve/event_log.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>

#include "tools/shared/field_line.h"

namespace tolvar::tools {
namespace {

constexpr std::int64_t kGraceMillis = 500;
constexpr int kPollMillis = 100;

}  // namespace

std::string formatEvent(timeval now, std::string_view level, std::string_view event,
                        std::initializer_list<EventField> fields) {
  std::string line;
  appendField(line, "time", utcText(now));
  appendField(line, "level", level);
  appendField(line, "event", event);
  for (const EventField& field : fields) appendField(line, field.name, field.value);
  return line;
}

EventLog::EventLog(int descriptor, qel::Clock& clock)
    : _descriptor(descriptor), _clock(clock), _writer([this] { run(); }) {}

EventLog::~EventLog() {
  {
    const std::lock_guard lock(_mutex);
    _ending = true;
    _giveUpAt = qel::systemClock().steadyMillis() + kGraceMillis;
  }
  _changed.notify_one();
  _writer.join();
}

void EventLog::info(std::string_view event, std::initializer_list<EventField> fields) {
  push("info", event, fields);
}

void EventLog::warn(std::string_view event, std::initializer_list<EventField> fields) {
  push("warn", event, fields);
}

void EventLog::error(std::string_view event, std::initializer_list<EventField> fields) {
  push("error", event, fields);
}

void EventLog::push(std::string_view level, std::string_view event,
                    std::initializer_list<EventField> fields) {
  std::string line = formatEvent(_clock.timeOfDay(), level, event, fields) + '\n';
  {
    const std::lock_guard lock(_mutex);
    if (_queue.size() >= kMaxQueued) {
      ++_lost;
      return;
    }
    _queue.push_back(std::move(line));
  }
  _changed.notify_one();
}

void EventLog::run() {
  std::unique_lock lock(_mutex);
  while (true) {
    _changed.wait(lock, [this] { return _ending || !_queue.empty(); });
    if (_queue.empty()) return;
    std::deque<std::string> lines;
    lines.swap(_queue);
    const std::uint64_t lost = std::exchange(_lost, 0);
    lock.unlock();
    _untold += lost;
    for (std::string& line : lines) {
      if (!write(std::move(line))) ++_untold;
    }
    if (_untold != 0) tellLoss();
    lock.lock();
  }
}

void EventLog::tellLoss() {
  const timeval now = _clock.timeOfDay();
  if (write(formatEvent(now, "warn", "log_lines_lost", {{"lines", _untold}}) + '\n')) _untold = 0;
}

bool EventLog::write(std::string line) {
  if (_isCutOff) line.insert(0, 1, '\n');
  std::string_view rest = line;
  while (!rest.empty() && qel::systemClock().steadyMillis() < _giveUpAt) {
    pollfd ready{_descriptor, POLLOUT, 0};
    if (poll(&ready, 1, kPollMillis) <= 0) continue;
    // A pipe that is ready takes this much without blocking.
    const ssize_t written =
        ::write(_descriptor, rest.data(), std::min<std::size_t>(rest.size(), PIPE_BUF));
    if (written > 0)
      rest.remove_prefix(static_cast<std::size_t>(written));
    else if (written < 0 && errno != EINTR && errno != EAGAIN)
      break;
  }
  if (rest.size() < line.size()) _isCutOff = !rest.empty();
  return rest.empty();
}

}  // namespace tolvar::tools
