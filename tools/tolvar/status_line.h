#pragma once

#include <sys/time.h>

#include <string>

#include "include/TolvarAPI.h"

namespace tolvar::tools {

/// True when the two differ in something that a status line shows, other than the time and when the
/// last error was: an attempt that fails like the one before is no change.
bool showsChange(const TolvarStatus& before, const TolvarStatus& now);

/// True when a client answers from the table whose digest is, or begins with, `digest` (lower
/// case).
bool answersFrom(const TolvarStatus& status, const std::string& digest);

/// One line of name=value pairs without a line end: what a client knew of itself at the wall
/// clock's `now`. What there is nothing of yet is shown as "none".
std::string statusLine(const TolvarStatus& status, timeval now);

/// The same as one JSON object without a line end; null where there is nothing yet.
std::string statusJson(const TolvarStatus& status, timeval now);

}  // namespace tolvar::tools
