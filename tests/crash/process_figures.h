#pragma once

#include <sys/types.h>

#include <cstddef>
#include <set>

namespace tolvar_test {

/// What a process takes up, from /proc.
struct ProcessFigures {
  bool alive = false;
  std::size_t privateKib = 0;  ///< resident memory that is not shared or a file's, KiB
  std::size_t descriptors = 0;
  std::set<unsigned long> segments;  ///< System V segments mapped, by identifier
};

ProcessFigures figuresOf(pid_t process);

}  // namespace tolvar_test
