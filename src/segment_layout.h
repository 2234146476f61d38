#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>

/// Where the regions of a data segment lie. Pure arithmetic over a block of memory: nothing here
/// attaches, writes or logs.
///
/// A data segment is a 16-byte head, then nine regions without gaps: the IP vector, then code
/// vectors 0 to 7. A region is an 8-byte size word and a block of that many bytes.
namespace tolvar {

inline constexpr int kCodeTables = 8;
inline constexpr int kRegions = 1 + kCodeTables;
inline constexpr std::size_t kHeadBytes = 16;
inline constexpr std::size_t kSizeWordBytes = 8;

/// Least power of two that is not below `n`; 0 for 0.
std::size_t nextPowerOfTwo(std::size_t n);

/// Block sizes in bytes, in the order of the regions.
using RegionSizes = std::array<std::size_t, kRegions>;

/// Sizes that a new segment is laid with.
RegionSizes defaultRegionSizes();

/// Sum of the block sizes, without heads and size words.
std::size_t sumOf(const RegionSizes& sizes);

/// Bytes of a segment that holds regions of these sizes.
std::size_t segmentBytes(const RegionSizes& sizes);

/// Size that new data segments are made with when nothing else is known.
std::size_t defaultSegmentBytes();

/// Offsets of the size words for regions of these sizes.
std::array<std::size_t, kRegions> regionOffsets(const RegionSizes& sizes);

/// What a walk found.
struct LayoutWalk {
  bool fits = false;    ///< all nine regions lie inside the segment and their heads agree
  RegionSizes sizes{};  ///< of the regions that were reached
  std::string problem;  ///< the first thing that is wrong, empty when it fits
};

/// Follows the size words through the `bytes` bytes at `segment`, believing none of them: every
/// region must lie inside the segment, be aligned, and hold a vector head that agrees with its size
/// word and counts no more nodes than it has room for.
LayoutWalk walkLayout(const void* segment, std::size_t bytes);

/// True when the block looks like a data segment of this library, laid or still zero, perhaps
/// damaged: any one vector mark at its default place or on the walk, or an untouched start in a
/// segment that is large enough.
bool looksLikeDataSegment(const void* segment, std::size_t bytes);

}  // namespace tolvar
