#pragma once

#include <sys/time.h>

#include <ctime>
#include <string>
#include <string_view>

namespace tolvar::tools {

/// "2026-01-31T12:00:00.000Z": the wall clock's `now` in UTC.
std::string utcText(timeval now);

/// The same without the fraction.
std::string utcText(std::time_t now);

/// Appends "name=value", with a blank before it unless `line` is empty. Values with blanks, quotes,
/// equals signs or anything that is no printable text stand in double quotes, with \" \\ \n and
/// \xNN inside.
void appendField(std::string& line, std::string_view name, std::string_view value);

}  // namespace tolvar::tools
