#include "log/log_file.h"

#include <cerrno>

#include "platform/system_calls.h"

namespace qel {

int LogFile::open(const std::string& path) noexcept {
  close();
  do {
    _fd = systemCalls().open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
  } while (_fd < 0 && errno == EINTR);
  return _fd < 0 ? errno : 0;
}

void LogFile::close() noexcept {
  if (_fd >= 0) systemCalls().close(_fd);
  _fd = -1;
}

std::size_t LogFile::append(std::string_view bytes, int* error) noexcept {
  std::size_t done = 0;
  while (done < bytes.size()) {
    const ssize_t written = systemCalls().write(_fd, bytes.data() + done, bytes.size() - done);
    if (written > 0) {
      done += static_cast<std::size_t>(written);
    } else if (written == 0 || errno != EINTR) {
      *error = written == 0 ? ENOSPC : errno;
      break;
    }
  }
  return done;
}

void LogFile::takeBack(std::size_t bytes) noexcept {
  const off_t end = ::lseek(_fd, 0, SEEK_CUR);
  const auto length = static_cast<off_t>(bytes);
  if (bytes == 0 || end < length || size() != end) return;
  // Best effort: when it fails a cut line stays, and the whole line follows it.
  [[maybe_unused]] const int ignored = systemCalls().ftruncate(_fd, end - length);
}

std::int64_t LogFile::size() const noexcept {
  struct stat found {};
  return ::fstat(_fd, &found) == 0 ? found.st_size : -1;
}

bool LogFile::isBehind(const std::string& path) const noexcept {
  struct stat named {};
  struct stat opened {};
  return ::stat(path.c_str(), &named) == 0 && ::fstat(_fd, &opened) == 0 &&
         named.st_dev == opened.st_dev && named.st_ino == opened.st_ino;
}

bool LogFile::lockForRename() noexcept {
  return systemCalls().flock(_fd, LOCK_EX | LOCK_NB) == 0 || errno != EWOULDBLOCK;
}

}  // namespace qel
