#pragma once

#include <string>

namespace qel {

/// File-system helpers; all may be called from any thread.
class ZU_File {
 public:
  /// True when `path` names anything that exists.
  static bool isFileExist(const std::string& path) noexcept;

  /// True when `path` names a directory (symbolic links followed).
  static bool isDirectory(const std::string& path) noexcept;

  /// Creates `path` and its missing parents with mode 0755 (less the umask).
  /// True when the directory exists afterwards; errno says why it does not.
  static bool makeDirRecursive(const std::string& path);

  /// The part of `path` before its last '/': "." when there is none, "/" for the root.
  static std::string extractFilePath(const std::string& path);
};

}  // namespace qel
