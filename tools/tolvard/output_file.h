#pragma once

#include <string>

namespace tolvar::tools {

/// Writes `text` to `path`, through links to what they lead to:
///
/// - a regular file is replaced in one step by one with the same permissions, and the same owner
///   where that is allowed, once the text is on the disk; no file yet is made the same way;
/// - anything else, a pipe or a device, is written to as it is;
/// - and so is what standard output goes to, behind what is there already.
///
/// Throws std::runtime_error naming the file and the cause; a regular file stays as it was then.
void writeFile(const std::string& path, const std::string& text);

}  // namespace tolvar::tools
