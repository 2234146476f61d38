#include "tools/tolvar/shm_values.h"

#include <pwd.h>

#include <array>

#include "include/segment_types.h"
#include "tools/shared/field_line.h"

namespace tolvar::tools {

std::string userName(uid_t user) {
  std::array<char, 4096> room;
  passwd entry{};
  passwd* found = nullptr;
  if (getpwuid_r(user, &entry, room.data(), room.size(), &found) == 0 && found != nullptr)
    return found->pw_name;
  return std::to_string(user);
}

std::string formatTime(std::time_t time) { return time == 0 ? "never" : utcText(time); }

std::uint64_t roomOf(const RegionReport& region) {
  return (region.sizeWord - sizeof(tagMemQueueHead)) / sizeof(MemNode);
}

std::optional<ImageKeys> keysOf(const FoundImage& image) {
  if (image.data.size() != 2 || !image.sizeRecord) return std::nullopt;
  return ImageKeys{image.data[0].record.key, image.data[1].record.key,
                   image.sizeRecord->record.key};
}

std::string statusName(std::uint32_t status) {
  switch (status) {
    case 0: return "new";
    case kMemoryStatusReady: return "ready";
    case kMemoryStatusPending: return "pending";
    case kMemoryStatusUnknown: return "unknown";
    default: return std::to_string(status);
  }
}

bool isBeingWritten(const ImageReport& report, std::size_t segment) {
  const auto& lock = report.slots->lock;
  return lock && lock->held && report.data[segment] && !report.data[segment]->ready();
}

bool hasTwoTables(const ImageReport& report) {
  const auto& [first, second] = report.data;
  return first && second && first->ready() && second->ready() && !first->digest.empty() &&
         !second->digest.empty() && first->digest != second->digest;
}

std::uint64_t countDamage(const ImageReport& report) {
  std::uint64_t damage = 0;
  for (std::size_t i = 0; i < report.data.size(); ++i) {
    if (!report.data[i]) {
      ++damage;
    } else if (!isBeingWritten(report, i)) {
      damage += report.data[i]->faultCount;
    }
  }
  return damage;
}

}  // namespace tolvar::tools
