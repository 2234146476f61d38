#include "platform/huge_pages.h"

#include <sys/mman.h>

#include <cerrno>
#include <cstdint>

namespace qel {

void preferHugePages(void* begin, std::size_t bytes) noexcept {
  const auto address = reinterpret_cast<std::uintptr_t>(begin);
  const std::uintptr_t first = (address + kHugePageBytes - 1) / kHugePageBytes * kHugePageBytes;
  const std::uintptr_t end = (address + bytes) / kHugePageBytes * kHugePageBytes;
  if (first >= end) return;
  const int error = errno;
  madvise(reinterpret_cast<void*>(first), end - first, MADV_HUGEPAGE);
  errno = error;
}

}  // namespace qel
