#include "platform/file.h"

#include <sys/stat.h>
#include <unistd.h>

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
  for (std::string::size_type at = path.find('/', 1); at != std::string::npos;
       at = path.find('/', at + 1)) {
    systemCalls().mkdir(path.substr(0, at).c_str(), 0755);
  }
  systemCalls().mkdir(path.c_str(), 0755);
  return isDirectory(path);
}

std::string ZU_File::extractFilePath(const std::string& path) {
  const auto slash = path.find_last_of('/');
  if (slash == std::string::npos) return ".";
  return slash == 0 ? "/" : path.substr(0, slash);
}

}  // namespace qel
