#include "src/segment_layout.h"

#include <algorithm>
#include <cstring>
#include <numeric>

#include "include/memVector.h"
#include "include/segment_types.h"
#include "platform/assertion.h"
#include "src/zero_bytes.h"

namespace tolvar {
namespace {

std::uint64_t wordAt(const void* segment, std::size_t offset) {
  std::uint64_t word = 0;
  std::memcpy(&word, static_cast<const char*>(segment) + offset, sizeof word);
  return word;
}

tagMemQueueHead headAt(const void* segment, std::size_t offset) {
  tagMemQueueHead head{};
  std::memcpy(&head, static_cast<const char*>(segment) + offset, sizeof head);
  return head;
}

/// The state in which a process leaves a damaged segment that is killed while it lays it anew: both
/// statuses unknown, the first vector zeroed and not marked yet. No other mark need be left.
bool isBeingLaidAnew(const void* segment) {
  MemoryHead head;
  std::memcpy(&head, segment, sizeof head);
  const char* const bytes = static_cast<const char*>(segment);
  return head.ip_usable == kMemoryStatusUnknown && head.code_usable == kMemoryStatusUnknown &&
         isZero(bytes + offsetof(MemoryHead, pad0), sizeof head - offsetof(MemoryHead, pad0)) &&
         isZero(bytes + kHeadBytes + kSizeWordBytes + offsetof(tagMemQueueHead, _iBlockSize), 24);
}

bool hasMark(const void* segment, std::size_t bytes, std::size_t sizeWordOffset) {
  const std::size_t block = sizeWordOffset + kSizeWordBytes;
  return block + sizeof(tagMemQueueHead) <= bytes &&
         headAt(segment, block)._iBlockSize == sizeof(MemNode);
}

/// Empty when the vector head at `block` agrees with a region of `size` bytes.
std::string faultOf(const tagMemQueueHead& head, std::size_t size) {
  if (head._iBlockSize != sizeof(MemNode)) {
    return "the vector mark is " + std::to_string(head._iBlockSize) + " instead of 128";
  }
  if (head._iSize != size) {
    return "the vector announces " + std::to_string(head._iSize) + " bytes in a region of " +
           std::to_string(size);
  }
  if (head._iBlockCount != (size - sizeof head) / sizeof(MemNode)) {
    return "the vector announces a capacity of " + std::to_string(head._iBlockCount) + " nodes";
  }
  if (head._iMaxIndex > head._iBlockCount) {
    return "the vector counts " + std::to_string(head._iMaxIndex) + " nodes, but has room for " +
           std::to_string(head._iBlockCount);
  }
  return {};
}

}  // namespace

std::size_t nextPowerOfTwo(std::size_t n) {
  if ((n & (n - 1)) == 0) return n;
  std::size_t result = 1;
  for (std::size_t rest = n; rest != 0; rest >>= 1) result <<= 1;
  if (!(result >= n)) {
    qel::assertionFailed("result >= origin", "TolvarAPI", __LINE__,
                         "size_t TolvarAPI::CalculateNextSize(size_t)");
  }
  return result;
}

RegionSizes defaultRegionSizes() {
  // Node counts: expected entries rounded up to a power of two, most code tables with the same
  // again in reserve. The operators' table has no reserve.
  const std::size_t nodes[kRegions] = {
      nextPowerOfTwo(300000),   nextPowerOfTwo(500) * 2,   nextPowerOfTwo(300) * 2,
      nextPowerOfTwo(1024) * 2, nextPowerOfTwo(10240) * 2, nextPowerOfTwo(3072) * 2,
      nextPowerOfTwo(4048),     nextPowerOfTwo(1024) * 2,  nextPowerOfTwo(100) * 2};
  RegionSizes sizes{};
  std::transform(std::begin(nodes), std::end(nodes), sizes.begin(),
                 [](std::size_t count) { return IPVector::calcMemSize(count); });
  return sizes;
}

std::size_t sumOf(const RegionSizes& sizes) {
  return std::accumulate(sizes.begin(), sizes.end(), std::size_t{0});
}

std::size_t segmentBytes(const RegionSizes& sizes) {
  return kHeadBytes + kRegions * kSizeWordBytes + sumOf(sizes);
}

std::size_t defaultSegmentBytes() {
  return std::max(sumOf(defaultRegionSizes()), kDefaultShmSize) + 128;
}

std::array<std::size_t, kRegions> regionOffsets(const RegionSizes& sizes) {
  std::array<std::size_t, kRegions> offsets{};
  std::size_t at = kHeadBytes;
  for (int region = 0; region < kRegions; ++region) {
    offsets[region] = at;
    at += kSizeWordBytes + sizes[region];
  }
  return offsets;
}

LayoutWalk walkLayout(const void* segment, std::size_t bytes) {
  LayoutWalk walk;
  std::size_t at = kHeadBytes;
  for (int region = 0; region < kRegions; ++region) {
    const std::string where =
        "region " + std::to_string(region) + " at offset " + std::to_string(at) + ": ";
    if (at + kSizeWordBytes + sizeof(tagMemQueueHead) > bytes) {
      walk.problem = where + "begins beyond the segment's " + std::to_string(bytes) + " bytes";
      return walk;
    }
    const std::uint64_t size = wordAt(segment, at);
    at += kSizeWordBytes;
    if (size < sizeof(tagMemQueueHead) || size > bytes - at || size % kSizeWordBytes != 0) {
      walk.problem = where + "impossible size " + std::to_string(size);
      return walk;
    }
    const std::string fault = faultOf(headAt(segment, at), size);
    if (!fault.empty()) {
      walk.problem = where + fault;
      return walk;
    }
    walk.sizes[region] = size;
    at += size;
  }
  walk.fits = true;
  return walk;
}

bool looksLikeDataSegment(const void* segment, std::size_t bytes) {
  // Untouched so far. Ours are never made smaller, and a small one may have an owner who is about
  // to fill it.
  if (bytes >= segmentBytes(defaultRegionSizes()) &&
      (isZero(segment, 64) || isBeingLaidAnew(segment)))
    return true;
  for (const std::size_t offset : regionOffsets(defaultRegionSizes()))
    if (hasMark(segment, bytes, offset)) return true;
  std::size_t at = kHeadBytes;
  for (int region = 0; region < kRegions && at + kSizeWordBytes <= bytes; ++region) {
    if (hasMark(segment, bytes, at)) return true;
    const std::uint64_t size = wordAt(segment, at);
    if (size > bytes) return false;
    at += kSizeWordBytes + size;
  }
  return false;
}

}  // namespace tolvar
