#pragma once

#include <sys/types.h>

#include <cstddef>
#include <set>

namespace tolvar_test {

/// What private memory may grow by, next to a share of itself, and still count as flat, in KiB.
/// Sanitizers keep what was freed for a while.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
inline constexpr std::size_t kFlatMemoryKib = 512 * 1024;
#else
inline constexpr std::size_t kFlatMemoryKib = 4 * 1024;
#endif

/// What a process takes up, from /proc.
struct ProcessFigures {
  std::size_t privateKib = 0;  ///< resident memory that is not shared or a file's, KiB
  std::size_t descriptors = 0;
  std::set<unsigned long> segments;  ///< System V segments mapped, by identifier
};

ProcessFigures figuresOf(pid_t process);

}  // namespace tolvar_test
