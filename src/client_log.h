#pragma once

#include <cstdio>
#include <new>

#include "include/TolvarAPI.h"

/// Log lines of the client. A message is composed in `_osLog` and emitted as "TolvarAPI:LINE]" and
/// the message. Some lines carry fixed numbers that operators' filters know; the others carry their
/// own.

using qel::kLogDebug;
using qel::kLogError;
using qel::kLogInfo;
using qel::kLogWarn;

/// A log line that there is no memory for is lost, and nothing else: a step that only wanted to say
/// something goes on. Of errors the host still hears.
#define TOLVAR_LOG_AS(write, level, line, message)                            \
  do {                                                                        \
    try {                                                                     \
      _osLog << message;                                                      \
      write(level, line);                                                     \
    } catch (const std::bad_alloc&) {                                         \
      _osLog.str({});                                                         \
      if ((level) == kLogError)                                               \
        std::fprintf(stderr, "TolvarAPI:%d]no memory for this line\n", line); \
    }                                                                         \
  } while (false)

/// Emits a line: before the file log is up, errors go to standard error, the rest to standard
/// output.
#define TOLVAR_LOG(level, line, message) TOLVAR_LOG_AS(writeLog, level, line, message)

/// Emits a line of the life cycle: before the file log is up, all of them go to standard output.
#define TOLVAR_LIFECYCLE_LOG(level, message) \
  TOLVAR_LOG_AS(writeLifecycleLog, level, __LINE__, message)
