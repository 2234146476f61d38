#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

/// One code entry on its way into a table.
struct CodeGap {
  std::uint64_t id = 0;
  std::string content;
};

/// Fixed-size image of a code entry: the id, a zero byte, the text, zero bytes to the end.
struct CodeGapEntry {
  static constexpr std::size_t kTextOffset = 9;

  char buffer[128] = {};

  /// Text beyond the entry's 119 bytes is cut.
  void Set(const CodeGap& gap) noexcept {
    std::memset(buffer, 0, sizeof buffer);
    std::memcpy(buffer, &gap.id, sizeof gap.id);
    const std::size_t room = sizeof buffer - kTextOffset;
    std::memcpy(buffer + kTextOffset, gap.content.data(), std::min(gap.content.size(), room));
  }
};
static_assert(sizeof(CodeGapEntry) == 128);
