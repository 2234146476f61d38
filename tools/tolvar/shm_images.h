#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "platform/shm.h"
#include "platform/shm_directory.h"
#include "src/image_inspector.h"
#include "tools/tolvar/key_list.h"

/// Images of this library on the host, looked at from outside: segments are mapped read-only, and
/// never made, changed or removed. Whether a segment is ours is read off its content.
namespace tolvar::tools {

/// One segment that was recognised.
struct FoundSegment {
  enum class Kind { Data, SizeRecord };

  qel::ShmRecord record;  ///< as it was before this process attached
  Kind kind = Kind::Data;
  std::uint32_t ipStatus = 0;       ///< Data
  std::uint32_t codeStatus = 0;     ///< Data
  std::uint64_t recordedBytes = 0;  ///< SizeRecord
  std::vector<pid_t> processes;     ///< that map it, as far as this user may see
};

/// Segments that belong together, as far as that can be told.
struct FoundImage {
  std::vector<FoundSegment> data;  ///< one or two, by ascending key
  std::optional<FoundSegment> sizeRecord;
};

/// Nothing in a segment names the others of its image, so they are put together by who made them
/// when, and then by how near their keys are. Every segment is in exactly one image. Pure.
std::vector<FoundImage> groupSegments(const std::vector<FoundSegment>& segments);

/// All images on the host. `unreadable` counts the segments that this user may not read.
std::vector<FoundImage> findImages(std::size_t* unreadable);

/// What stands behind one key of an image.
struct SegmentSlot {
  enum class State {
    Missing,  ///< no segment
    Foreign,  ///< a segment, but nothing in it is ours
    Ours,     ///< perhaps damaged
  };

  key_t key = 0;
  State state = State::Missing;
  std::optional<qel::ShmRecord> record;  ///< as it was before this process attached
  std::vector<pid_t> processes;
  qel::ZU_Shm shm;  ///< attached read-only unless Missing
};

/// The three segments behind an image's keys, and its lock.
struct ImageSlots {
  std::array<SegmentSlot, 3> segments;  ///< in the order of the keys
  std::uint64_t recordedBytes = 0;      ///< of the size record, 0 when there is no valid one
  std::optional<qel::SemaphoreRecord> lock;

  bool anyOurs() const noexcept;
};

/// Looks behind the keys. Throws qel::ZU_Exception for keys that are 0 or equal, and when a segment
/// cannot be read.
void openImage(const ImageKeys& keys, ImageSlots* image);

}  // namespace tolvar::tools
