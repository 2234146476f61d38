#pragma once

#include <cstddef>
#include <vector>

#include "platform/huge_pages.h"

namespace tolvar {

/// Rows of one size, begun on a cache line, in memory that is read at random places.
class Rows {
 public:
  /// From every byte of a row on, this many more may be read.
  static constexpr std::size_t kReadableBytes = 64;

  Rows() noexcept = default;

  /// `count` rows of `bytes` bytes (a divisor or a multiple of 64), all zero. Throws
  /// std::bad_alloc.
  Rows(std::size_t count, std::size_t bytes)
      : _bytes(bytes), _lines(count * bytes / sizeof(Line) + 2) {}

  /// Size of a row, in bytes.
  std::size_t bytes() const noexcept { return _bytes; }

  const char* operator[](std::size_t row) const noexcept {
    return _lines.data()->bytes + row * _bytes;
  }
  char* operator[](std::size_t row) noexcept { return _lines.data()->bytes + row * _bytes; }

 private:
  struct alignas(kReadableBytes) Line {
    char bytes[kReadableBytes];
  };

  std::size_t _bytes = 0;
  std::vector<Line, qel::HugePageAllocator<Line>> _lines;
};

}  // namespace tolvar
