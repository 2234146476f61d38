#include "log/logger.h"

#include <unistd.h>

#include <utility>

#include "platform/abandon.h"

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

LoggerCore::LoggerCore(LogRoller& roller) : _roller(roller), _channel(makeChannel()) {}

LoggerCore::~LoggerCore() {
  _channel->close();
  if (_channel->isForkedCopy()) abandon(_channel);
}

std::shared_ptr<LogChannel> LoggerCore::makeChannel() {
  auto channel = std::make_shared<LogChannel>(_roller, [this](int level) { return header(level); });
  channel->setClock(*_clock);
  return channel;
}

void LoggerCore::setCoreClock(Clock& clock) {
  _clock = &clock;
  _channel->setClock(clock);
}

void LoggerCore::beginAnewAfterFork() {
  if (!_channel->isForkedCopy() || !_channel->isRollerUnused()) return;
  auto channel = makeChannel();
  _channel->close();
  abandon(_channel);
  _channel = std::move(channel);
}

void LoggerCore::setupThread(ZU_LoggerThreadGroup* group) {
  beginAnewAfterFork();
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
