#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace qel {

/// A file that is only appended to, perhaps by other processes too. Used by one thread at a time.
class LogFile {
 public:
  LogFile() = default;
  ~LogFile() { close(); }
  LogFile(const LogFile&) = delete;
  LogFile& operator=(const LogFile&) = delete;

  /// Opens `path` for appending, creating it with mode 0644. Answers 0 or the errno value.
  int open(const std::string& path) noexcept;

  void close() noexcept;

  bool isOpen() const noexcept { return _fd >= 0; }

  /// Appends `bytes` with one write call, or as many as the system makes of it. Answers how many
  /// bytes are in the file now; when they are not all of them, `*error` is the errno value.
  std::size_t append(std::string_view bytes, int* error) noexcept;

  /// Takes back the last `bytes` bytes of the last `append`, unless somebody else has appended
  /// since. Never makes the file longer.
  void takeBack(std::size_t bytes) noexcept;

  /// Bytes in the file, which is where the next append goes; -1 when that cannot be told.
  std::int64_t size() const noexcept;

  /// True when `path` still names this file.
  bool isBehind(const std::string& path) const noexcept;

  /// Tries to become the one process that renames this file. False when another one is at it. The
  /// lock ends with `close`. True as well where the file system knows no locks.
  bool lockForRename() noexcept;

 private:
  int _fd = -1;
};

}  // namespace qel
