#pragma once

#include <sys/types.h>

#include <cstddef>
#include <ctime>
#include <optional>
#include <vector>

namespace qel {

/// What the system keeps about one System V shared-memory segment. Times are seconds since 1970, 0
/// for never.
struct ShmRecord {
  int id = -1;
  key_t key = 0;
  std::size_t bytes = 0;
  unsigned mode = 0;           ///< permission bits
  uid_t owner = 0;             ///< user
  pid_t creator = 0;           ///< process that made it; may have ended
  pid_t lastProcess = 0;       ///< process that attached or detached last; may have ended
  unsigned long attached = 0;  ///< mappings at this moment
  std::time_t lastAttach = 0;
  std::time_t lastDetach = 0;
  std::time_t changed = 0;  ///< made, or owner or permissions changed
};

/// All segments on the host that still have a key, by ascending key; those whose record this user
/// may not see are left out, and counted in `*refused`. Attaches to nothing. Any thread. Throws
/// ZU_Exception when the system refuses altogether.
std::vector<ShmRecord> listSegments(std::size_t* refused = nullptr);

/// The segment behind `key`; nothing when there is none. Throws ZU_Exception when it cannot be
/// looked at.
std::optional<ShmRecord> segmentBehind(key_t key);

/// Processes that map the segment, ascending, as far as this user may see their mappings.
std::vector<pid_t> processesMapping(int segmentId);

/// What the system keeps about a set of one semaphore.
struct SemaphoreRecord {
  int id = -1;
  bool held = false;           ///< its value is not 0
  pid_t lastProcess = 0;       ///< process that operated on it last, 0 for none
  std::time_t lastChange = 0;  ///< time of that operation, 0 for none
};

/// The semaphore behind `key`; nothing when there is none, it cannot be read, or the set is not of
/// one.
std::optional<SemaphoreRecord> semaphoreBehind(key_t key) noexcept;

}  // namespace qel
