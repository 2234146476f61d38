#pragma once

#include <vector>

#include "tests/crash/crash_host.h"

namespace tolvar_test {

/// Versions of the two halves of an image, 0 and 0 for one that is not ready.
struct Halves {
  std::uint32_t ranges = 0;
  std::uint32_t names = 0;
};

/// Which of `versions` a data segment holds, every byte of a record counted. Throws
/// std::runtime_error when it says ready and is not wholly one of them in each half.
Halves halvesOf(key_t key, const std::vector<Version>& versions);

/// What a process that starts now sees, through a client of its own and byte by byte: the lock is
/// free, the start does not fail, and what is ready is whole. Throws std::runtime_error for
/// anything else. With `undamaged` both segments must be so before the start already.
Halves seenByAStart(CrashHost& host, const std::vector<Version>& versions, bool undamaged = true);

/// Both segments hold this version. Throws std::runtime_error.
void expectBothHold(const ShmKeys& keys, const Version& version);

}  // namespace tolvar_test
