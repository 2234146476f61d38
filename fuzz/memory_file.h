#pragma once

#include <string>

namespace tolvar_fuzz {

/// A file that lies in memory only and has a path all the same.
class MemoryFile {
 public:
  explicit MemoryFile(const std::string& content);
  ~MemoryFile();
  MemoryFile(const MemoryFile&) = delete;
  MemoryFile& operator=(const MemoryFile&) = delete;

  std::string path() const { return "/proc/self/fd/" + std::to_string(_fd); }

 private:
  int _fd;
};

}  // namespace tolvar_fuzz
