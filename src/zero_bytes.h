#pragma once

#include <cstddef>
#include <cstring>

namespace tolvar {

/// Whether all of `size` bytes are zero.
inline bool isZero(const void* bytes, std::size_t size) noexcept {
  const char* const first = static_cast<const char*>(bytes);
  // The first one is, and every other is the one before it.
  return size == 0 || (*first == 0 && std::memcmp(first, first + 1, size - 1) == 0);
}

}  // namespace tolvar
