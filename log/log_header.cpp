#include "log/log_header.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "platform/local_time.h"

namespace qel {
namespace {

/// Appends pieces to a buffer of fixed size and cuts what does not fit.
class Pieces {
 public:
  explicit Pieces(char (&head)[kLogHeaderBytes]) : _head(head) {
    std::memset(_head, 0, kLogHeaderBytes);
  }

  __attribute__((format(printf, 2, 3))) void add(const char* format, ...) noexcept {
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(_head + _length, kLogHeaderBytes - _length, format, arguments);
    va_end(arguments);
    _length += std::strlen(_head + _length);
  }

  std::size_t length() const noexcept { return _length; }

 private:
  char* const _head;
  std::size_t _length = 0;
};

void addTime(Pieces& pieces, const LogHeaderStyle& style, bool millis, const timeval& now,
             const char* separator) noexcept {
  const std::tm local = localTime(now.tv_sec);
  const char* open = style.brackets ? "[" : "";
  const char* close = style.brackets ? "]" : "";
  const int year = local.tm_year + 1900;
  const int month = local.tm_mon + 1;
  if (millis) {
    pieces.add("%s%04d-%02d-%02d %02d:%02d:%02d.%03ld%s%s", open, year, month, local.tm_mday,
               local.tm_hour, local.tm_min, local.tm_sec, static_cast<long>(now.tv_usec / 1000),
               close, separator);
  } else {
    pieces.add("%s%04d-%02d-%02d %02d:%02d:%02d%s%s", open, year, month, local.tm_mday,
               local.tm_hour, local.tm_min, local.tm_sec, close, separator);
  }
}

}  // namespace

const char* logLevelName(int level) noexcept {
  static constexpr const char* kNames[] = {"ANY", "NONE_LOG", "ERROR", "WARN", "DEBUG", "INFO"};
  return level >= kLogAny && level <= kLogInfo ? kNames[level] : "UNKNOWN";
}

std::size_t formatLogHeader(char (&head)[kLogHeaderBytes], const LogHeaderStyle& style, int level,
                            const timeval& now, long threadId) noexcept {
  // A separator longer than the header would be cut anyway.
  char separator[kLogHeaderBytes] = {};
  style.separator.copy(separator, kLogHeaderBytes - 1);

  Pieces pieces(head);
  if ((style.flags & (kHeaderTimeMillis | kHeaderTime)) != 0)
    addTime(pieces, style, (style.flags & kHeaderTimeMillis) != 0, now, separator);
  if ((style.flags & kHeaderThread) != 0) pieces.add("%ld%s", threadId, separator);
  if ((style.flags & kHeaderLevel) != 0) pieces.add("%s%s", logLevelName(level), separator);
  return pieces.length();
}

}  // namespace qel
