#include "src/segment_copy.h"

#include <algorithm>

#include "platform/shared_write_point.h"
#include "src/side_task.h"
#include "src/zero_bytes.h"

namespace tolvar {
namespace {

/// From so many bytes on, a second thread saves more than it costs.
constexpr std::size_t kParallelBytes = std::size_t{8} << 20;

/// What is looked at for being zero as a whole: a page of the system.
constexpr std::size_t kPageBytes = 4096;

/// Copies bytes `begin` to `end`.
void copyRun(void* to, const void* from, std::size_t begin, std::size_t end) {
  if (begin < end) {
    qel::sharedCopy("segment content", static_cast<char*>(to) + begin,
                    static_cast<const char*>(from) + begin, end - begin);
  }
}

/// The same but for what is zero.
void copyNonZero(void* to, const void* from, std::size_t begin, std::size_t end) {
  for (std::size_t at = begin; at < end; at += kPageBytes) {
    const std::size_t next = std::min(at + kPageBytes, end);
    if (!isZero(static_cast<const char*>(from) + at, next - at)) continue;
    copyRun(to, from, begin, at);
    begin = next;
  }
  copyRun(to, from, begin, end);
}

char* byteOf(const qel::ZU_Shm& segment, std::size_t offset) {
  return static_cast<char*>(segment.getPointer()) + offset;
}

}  // namespace

void copyToSegment(void* to, const void* from, std::size_t size) {
  inHalves(size, kParallelBytes,
           [=](std::size_t begin, std::size_t end) { copyRun(to, from, begin, end); });
}

void copyToNewSegment(void* to, const void* from, std::size_t size) {
  inHalves(size, kParallelBytes,
           [=](std::size_t begin, std::size_t end) { copyNonZero(to, from, begin, end); });
}

void copyContent(qel::ZU_Shm& to, std::size_t begin, const qel::ZU_Shm& from, std::size_t end) {
  copyToSegment(byteOf(to, begin), byteOf(from, begin), end - begin);
}

void fillContent(qel::ZU_Shm& to, std::size_t begin, const qel::ZU_Shm& from, std::size_t end) {
  const auto copy = to.iscreate() ? copyToNewSegment : copyToSegment;
  copy(byteOf(to, begin), byteOf(from, begin), end - begin);
}

}  // namespace tolvar
