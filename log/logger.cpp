#include "log/logger.h"

#include <unistd.h>

#include <utility>

namespace qel {

LoggerStream::LoggerStream(std::shared_ptr<LogChannel> channel, int level, std::string_view header)
    : _line(new Line{std::move(channel), level, {}}) {
  _line->text << header;
}

LoggerStream::~LoggerStream() {
  if (!_line) return;
  try {
    std::string text = std::move(_line->text).str();
    if (text.empty() || text.back() != '\n') text.push_back('\n');
    _line->channel->submit(_line->level, std::move(text));
  } catch (const std::exception&) {
    // No memory for the line; the host goes on without it.
  }
}

LoggerCore::LoggerCore(LogRoller& roller)
    : _channel(std::make_shared<LogChannel>(roller, [this](int level) { return header(level); })) {}

LoggerCore::~LoggerCore() {
  _channel->close();
  // A thread of the parent may have been half-way through changing it when the process was copied.
  if (_channel->isForkedCopy())
    static_cast<void>(new std::shared_ptr<LogChannel>(std::move(_channel)));
}

void LoggerCore::setCoreClock(Clock& clock) {
  _clock = &clock;
  _channel->setClock(clock);
}

void LoggerCore::setupThread(ZU_LoggerThreadGroup* group) {
  if (group != nullptr) {
    group->add(_channel);
  } else {
    _channel->attach(nullptr);
    _channel->drain();
  }
}

std::string LoggerCore::header(int level) const {
  char head[kLogHeaderBytes];
  const LogHeaderStyle style{_flags.load(), _brackets.load(), _separator};
  const std::size_t length =
      formatLogHeader(head, style, level, _clock->timeOfDay(), static_cast<long>(gettid()));
  return {head, length};
}

LoggerStream LoggerCore::stream(int level) {
  if (_level.load(std::memory_order_relaxed) < level) return {};
  return {_channel, level, header(level)};
}

}  // namespace qel
