#include "platform/file.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "platform/system_calls.h"

namespace qel {

bool ZU_File::isFileExist(const std::string& path) noexcept {
  return ::access(path.c_str(), F_OK) == 0;
}

bool ZU_File::isDirectory(const std::string& path) noexcept {
  struct stat found {};
  return ::stat(path.c_str(), &found) == 0 && S_ISDIR(found.st_mode);
}

bool ZU_File::makeDirRecursive(const std::string& path) {
  int cause = 0;
  const auto make = [&cause](const std::string& directory) {
    const bool failed = systemCalls().mkdir(directory.c_str(), 0755) != 0 && errno != EEXIST;
    // Those below a directory that cannot be made only miss it.
    if (failed && cause == 0) cause = errno;
  };
  for (std::string::size_type at = path.find('/', 1); at != std::string::npos;
       at = path.find('/', at + 1)) {
    make(path.substr(0, at));
  }
  make(path);
  if (isDirectory(path)) return true;
  errno = cause != 0 ? cause : ENOTDIR;
  return false;
}

std::string ZU_File::extractFilePath(const std::string& path) {
  const auto slash = path.find_last_of('/');
  if (slash == std::string::npos) return ".";
  return slash == 0 ? "/" : path.substr(0, slash);
}

}  // namespace qel
