#include "tools/tolvard/serve/event_log.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <ctime>

#include "service/text_source.h"

namespace tolvar::tools {
namespace {

constexpr std::int64_t kGraceMillis = 500;
constexpr int kPollMillis = 100;

std::string utcTime(timeval now) {
  std::tm parts{};
  gmtime_r(&now.tv_sec, &parts);
  std::array<char, 32> text{};
  const std::size_t length = std::strftime(text.data(), text.size(), "%Y-%m-%dT%H:%M:%S", &parts);
  std::snprintf(text.data() + length, text.size() - length, ".%03dZ",
                static_cast<int>(now.tv_usec / 1000 % 1000));
  return text.data();
}

void appendQuoted(std::string& line, std::string_view value) {
  const bool isText = service::isUtf8(value);
  line += '"';
  for (const char c : value) {
    const auto byte = static_cast<unsigned char>(c);
    if (c == '"' || c == '\\') {
      line += '\\';
      line += c;
    } else if (c == '\n') {
      line += "\\n";
    } else if (byte < 0x20 || byte == 0x7F || (byte >= 0x80 && !isText)) {
      std::array<char, 5> escaped{};
      std::snprintf(escaped.data(), escaped.size(), "\\x%02X", byte);
      line += escaped.data();
    } else {
      line += c;
    }
  }
  line += '"';
}

bool isPlain(std::string_view value) {
  return !value.empty() && std::all_of(value.begin(), value.end(), [](char c) {
    return c > ' ' && c < 0x7F && c != '"' && c != '=' && c != '\\';
  });
}

}  // namespace

std::string formatEvent(timeval now, std::string_view level, std::string_view event,
                        std::initializer_list<EventField> fields) {
  std::string line = "time=" + utcTime(now) + " level=";
  line += level;
  line += " event=";
  line += event;
  for (const EventField& field : fields) {
    line += ' ';
    line += field.name;
    line += '=';
    if (isPlain(field.value))
      line += field.value;
    else
      appendQuoted(line, field.value);
  }
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
    for (std::string& line : lines) write(std::move(line));
    if (lost != 0)
      write(formatEvent(_clock.timeOfDay(), "warn", "log_lines_lost", {{"lines", lost}}) + '\n');
    lock.lock();
  }
}

void EventLog::write(std::string line) {
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
      return;
  }
}

}  // namespace tolvar::tools
