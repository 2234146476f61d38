#include "platform/huge_pages.h"

#include <cerrno>
#include <cstdint>
#include <limits>

#include "platform/system_calls.h"

namespace qel {
namespace {

/// The largest size of an ordinary page among the systems this runs on, so a multiple of all.
constexpr std::size_t kPageBytes = 65536;

std::size_t wholePages(std::size_t bytes) noexcept {
  return (bytes + kPageBytes - 1) / kPageBytes * kPageBytes;
}

void unmap(std::uintptr_t begin, std::uintptr_t end) noexcept {
  if (begin < end) systemCalls().munmap(reinterpret_cast<void*>(begin), end - begin);
}

}  // namespace

void* mapHugePages(std::size_t bytes) {
  if (bytes > std::numeric_limits<std::size_t>::max() / 2) throw std::bad_alloc();
  // One huge page more than needed, and what lies outside the aligned part given back at once.
  const std::size_t length = wholePages(bytes) + kHugePageBytes;
  const int error = errno;
  void* const mapped = systemCalls().mmap(nullptr, length, PROT_READ | PROT_WRITE,
                                          MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (mapped == MAP_FAILED) throw std::bad_alloc();
  const auto begin = reinterpret_cast<std::uintptr_t>(mapped);
  const std::uintptr_t first = (begin + kHugePageBytes - 1) / kHugePageBytes * kHugePageBytes;
  unmap(begin, first);
  unmap(first + wholePages(bytes), begin + length);
  madvise(reinterpret_cast<void*>(first), bytes / kHugePageBytes * kHugePageBytes, MADV_HUGEPAGE);
  errno = error;  // a wish that is not granted is no failure
  return reinterpret_cast<void*>(first);
}

void wishHugePages(void* memory, std::size_t bytes) noexcept {
  const auto begin = reinterpret_cast<std::uintptr_t>(memory);
  const std::uintptr_t first = (begin + kHugePageBytes - 1) / kHugePageBytes * kHugePageBytes;
  const std::uintptr_t last = (begin + bytes) / kHugePageBytes * kHugePageBytes;
  if (first >= last) return;
  const int error = errno;
  madvise(reinterpret_cast<void*>(first), last - first, MADV_HUGEPAGE);
  errno = error;
}

void unmapHugePages(void* memory, std::size_t bytes) noexcept {
  const auto begin = reinterpret_cast<std::uintptr_t>(memory);
  unmap(begin, begin + wholePages(bytes));
}

}  // namespace qel
