#pragma once

#include <array>
#include <optional>
#include <string>
#include <vector>

#include "tools/tolvar/shm_images.h"

/// What `tolvar shm` prints of segments that have been read. Nothing here looks at the host, but
/// for the names of users.
namespace tolvar::tools {

/// What was read of the segments behind an image's keys; nothing for a data segment that is missing
/// or foreign.
struct ImageReport {
  const ImageSlots* slots = nullptr;
  std::array<std::optional<SegmentReport>, 2> data;
  std::uint64_t damage = 0;  ///< findings that make `verify` fail
};

/// Judges what was read. A half-written segment is no damage while its writer is at work, that is,
/// while the lock is held.
std::uint64_t countDamage(const ImageReport& report);

/// "ready", "pending", "unknown", "new", or the number of another word.
std::string statusName(std::uint32_t status);

/// `unreadable` is the number of segments that may be part of others.
std::string listText(const std::vector<FoundImage>& images, std::size_t unreadable);
std::string showText(const ImageReport& report);
std::string verifyText(const ImageReport& report);

/// One JSON document each, with a line end.
std::string listJson(const std::vector<FoundImage>& images, std::size_t unreadable);
std::string showJson(const ImageReport& report);
std::string verifyJson(const ImageReport& report);

}  // namespace tolvar::tools
