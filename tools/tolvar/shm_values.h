#pragma once

#include <sys/types.h>

#include <cstdint>
#include <ctime>
#include <optional>
#include <string>

#include "tools/tolvar/shm_report.h"

namespace tolvar::tools {

/// Name of a user; the number of one without a name.
std::string userName(uid_t user);

/// "2026-01-31T23:59:59Z", or "never" for 0.
std::string formatTime(std::time_t time);

/// Nodes that fit into a region that was reached.
std::uint64_t roomOf(const RegionReport& region);

/// The keys as `--keys` takes them; nothing when the image is not complete.
std::optional<ImageKeys> keysOf(const FoundImage& image);

/// A segment that is not ready while somebody holds the lock.
bool isBeingWritten(const ImageReport& report, std::size_t segment);

/// Both segments are ready and whole, and their ranges differ.
bool hasTwoTables(const ImageReport& report);

}  // namespace tolvar::tools
