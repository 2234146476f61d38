#include "platform/mmap.h"

#include <cerrno>

#include "platform/exception.h"
#include "platform/system_calls.h"

namespace qel {

void ZU_Mmap::mmap(const std::string& path, std::size_t length) {
  munmap();
  const SystemCalls& calls = systemCalls();
  int fd = -1;
  do {
    fd = calls.open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
  } while (fd < 0 && errno == EINTR);
  if (fd < 0) throw ZU_Exception("[ZU_Mmap::mmap]: cannot open " + path, errno);
  int refused = 0;
  do {
    refused = calls.posixFallocate(fd, 0, static_cast<off_t>(length));
  } while (refused == EINTR);
  if (refused != 0) {
    calls.close(fd);
    throw ZU_Exception(
        "[ZU_Mmap::mmap]: cannot reserve " + std::to_string(length) + " bytes in " + path, refused);
  }
  void* address = calls.mmap(nullptr, length, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  if (address == MAP_FAILED) {
    const int failure = errno;
    calls.close(fd);
    throw ZU_Exception("[ZU_Mmap::mmap]: cannot map " + path, failure);
  }
  _fd = fd;
  _address = address;
  _length = length;
}

bool ZU_Mmap::write(std::size_t offset, const void* data, std::size_t size) noexcept {
  const auto* bytes = static_cast<const char*>(data);
  while (size > 0) {
    const ssize_t written = systemCalls().pwrite(_fd, bytes, size, static_cast<off_t>(offset));
    if (written < 0 && errno == EINTR) continue;
    if (written < 0) return false;
    bytes += written;
    offset += static_cast<std::size_t>(written);
    size -= static_cast<std::size_t>(written);
  }
  return true;
}

void ZU_Mmap::munmap() noexcept {
  if (_address == nullptr) return;
  systemCalls().munmap(_address, _length);
  systemCalls().close(_fd);
  _fd = -1;
  _address = nullptr;
  _length = 0;
}

}  // namespace qel
