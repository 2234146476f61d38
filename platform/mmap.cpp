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
  const int failure = errno;
  calls.close(fd);
  if (address == MAP_FAILED) throw ZU_Exception("[ZU_Mmap::mmap]: cannot map " + path, failure);
  _address = address;
  _length = length;
}

void ZU_Mmap::munmap() noexcept {
  if (_address == nullptr) return;
  systemCalls().munmap(_address, _length);
  _address = nullptr;
  _length = 0;
}

}  // namespace qel
