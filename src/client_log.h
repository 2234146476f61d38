#pragma once

#include "include/TolvarAPI.h"

/// Log lines of the client. A message is composed in `_osLog` and emitted as "TolvarAPI:LINE]" and
/// the message. Some lines carry fixed numbers that operators' filters know; the others carry their
/// own.

using qel::kLogDebug;
using qel::kLogError;
using qel::kLogInfo;
using qel::kLogWarn;

/// Emits a line: before the file log is up, errors go to standard error, the rest to standard
/// output.
#define TOLVAR_LOG(level, line, message) \
  do {                                   \
    _osLog << message;                   \
    writeLog(level, line);               \
  } while (false)

/// Emits a line of the life cycle: before the file log is up, all of them go to standard output.
#define TOLVAR_LIFECYCLE_LOG(level, message) \
  do {                                       \
    _osLog << message;                       \
    writeLifecycleLog(level, __LINE__);      \
  } while (false)
