#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "include/memVector.h"
#include "src/segment_layout.h"

/// A look at a data segment that changes nothing and believes nothing, for tools and tests. It
/// needs no client, and the segment may be mapped read-only. Others may write it meanwhile: every
/// word is read once, and what was read is what is checked.
namespace tolvar {

/// One finding. It says where as narrowly as it can.
struct ImageFault {
  static constexpr int kHead = -1;  ///< region of a fault in the segment's head

  int region = kHead;        ///< 0 the IP table, 1 + k code table k
  std::int64_t node = -1;    ///< -1 when it concerns no single node
  std::uint64_t offset = 0;  ///< of the word or byte at fault, in bytes from the segment's start
  std::string problem;
};

/// Name of a region: "ranges", "countries" ... "access points"; "head" for ImageFault::kHead.
const char* regionName(int region) noexcept;

/// What a region's words say.
struct RegionReport {
  bool reached = false;        ///< the size words before it led here, and its head lies inside
  std::uint64_t offset = 0;    ///< of its size word
  std::uint64_t sizeWord = 0;  ///< bytes of the block
  tagMemQueueHead head{};      ///< as found
  std::uint64_t nodes = 0;     ///< that can be read: the count, if there is room for it
};

/// What a data segment holds.
struct SegmentReport {
  /// Faults that are listed; the others are only counted.
  static constexpr std::size_t kListedFaults = 100;

  std::size_t bytes = 0;
  std::uint32_t ipStatus = 0;
  std::uint32_t codeStatus = 0;
  std::array<RegionReport, kRegions> regions{};
  std::uint64_t slack = 0;  ///< bytes behind the last region, when all were reached

  /// Content digest of the IP half as a client of this image sends it; empty when a range does not
  /// decode or the nodes were not read.
  std::string digest;

  std::vector<ImageFault> faults;  ///< first to last, at most kListedFaults
  std::uint64_t faultCount = 0;

  /// Oddities that damage does not explain: ranges that are reversed or overlap came so from the
  /// service. `faults` does not hold them. Listed and counted like faults.
  std::vector<ImageFault> oddities;
  std::uint64_t oddityCount = 0;

  /// Somebody wrote heads, counts or statuses while the segment was read.
  bool changedMeanwhile = false;

  /// Both statuses are ready.
  bool ready() const noexcept;
};

/// Reads the head and the words of the regions of the `bytes` bytes at `segment`, no nodes.
SegmentReport inspectLayout(const void* segment, std::size_t bytes);

/// The same, and decodes every node: the length word, the record, the zeros behind it, a code
/// entry's type, the order of the ranges. Memory does not grow with the segment. Never throws but
/// for want of memory.
SegmentReport inspectSegment(const void* segment, std::size_t bytes);

/// True when at least one region's words fit together as only this library lays them, at its
/// default place or where the size words lead. Stricter than looksLikeDataSegment, which also takes
/// a large segment that begins with zeros.
bool isLaidSegment(const void* segment, std::size_t bytes);

/// The size record in the `bytes` bytes at `segment`: the bytes it records, 0 when it is not valid.
std::uint64_t recordedSize(const void* segment, std::size_t bytes);

}  // namespace tolvar
