#pragma once

#include <sys/time.h>

#include <cstddef>
#include <string_view>

namespace qel {

/// Levels of log lines. A logger writes the lines whose level is at most its own, so a logger set
/// to kLogDebug suppresses the lines of kLogInfo.
inline constexpr int kLogAny = 0;
inline constexpr int kLogNone = 1;
inline constexpr int kLogError = 2;
inline constexpr int kLogWarn = 3;
inline constexpr int kLogDebug = 4;
inline constexpr int kLogInfo = 5;

/// "ANY", "NONE_LOG", "ERROR", "WARN", "DEBUG", "INFO"; "UNKNOWN" for any other number.
const char* logLevelName(int level) noexcept;

/// What a line's header consists of: a mask of these bits.
inline constexpr int kHeaderTime = 1;    ///< local time to the second
inline constexpr int kHeaderThread = 2;  ///< kernel thread id
inline constexpr int kHeaderLevel = 4;   ///< name of the level
inline constexpr int kHeaderTimeMillis =
    8;  ///< local time to the millisecond, instead of kHeaderTime

struct LogHeaderStyle {
  int flags = kHeaderTime;
  bool brackets = true;              ///< time in square brackets
  std::string_view separator = "|";  ///< written behind every piece
};

/// Bytes of a header's buffer, its ending zero included. What does not fit is cut off.
inline constexpr std::size_t kLogHeaderBytes = 127;

/// Fills `head` with the header of one line and zeroes behind it; answers the header's length.
/// Pure but for the process's time zone; may be called from any thread, and in a forked child.
std::size_t formatLogHeader(char (&head)[kLogHeaderBytes], const LogHeaderStyle& style, int level,
                            const timeval& now, long threadId) noexcept;

}  // namespace qel
