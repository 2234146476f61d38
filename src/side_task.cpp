#include "src/side_task.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "platform/shared_write_point.h"

namespace tolvar {
namespace {

/// Below this a second thread costs more than it saves, in bytes.
constexpr std::size_t kParallelCopyBytes = std::size_t{8} << 20;

/// What is looked at for being zero as a whole: a page of the system.
constexpr std::size_t kPageBytes = 4096;

bool isZero(const char* bytes, std::size_t size) noexcept {
  // Every byte is the one behind it, and the first is zero.
  return bytes[0] == 0 && std::memcmp(bytes, bytes + 1, size - 1) == 0;
}

void copyRun(char* to, const char* from, std::size_t begin, std::size_t end) {
  if (begin < end) qel::sharedCopy("segment content", to + begin, from + begin, end - begin);
}

/// Leaves out what is zero already.
void copyNonZero(char* to, const char* from, std::size_t size) {
  std::size_t begin = 0;
  for (std::size_t at = 0; at < size; at += kPageBytes) {
    const std::size_t bytes = std::min(kPageBytes, size - at);
    if (!isZero(from + at, bytes)) continue;
    copyRun(to, from, begin, at);
    begin = at + bytes;
  }
  copyRun(to, from, begin, size);
}

/// Does `copy(offset, bytes)` for all of `size`, a large one on two threads.
template <class Copy>
void inHalves(std::size_t size, const Copy& copy) {
  if (size < kParallelCopyBytes) return copy(std::size_t{0}, size);
  const std::size_t half = size / 2;
  SideTask rest([&] { copy(half, size - half); });
  copy(std::size_t{0}, half);
  rest.finish();
}

}  // namespace

SideTask::SideTask(std::function<void()> work) : _work(std::move(work)) {
  try {
    start();
  } catch (...) {
    // Without a second thread `finish` does the work.
  }
}

SideTask::~SideTask() { getThreadControl().join(); }

void SideTask::finish() {
  getThreadControl().join();
  if (!_done) _work();
  _done = true;
}

void SideTask::run() {
  // An exception ends the thread, and the work is then not done.
  _work();
  _done = true;
}

void copyToSegment(void* to, const void* from, std::size_t size) {
  inHalves(size, [=](std::size_t offset, std::size_t bytes) {
    qel::sharedCopy("segment content", static_cast<char*>(to) + offset,
                    static_cast<const char*>(from) + offset, bytes);
  });
}

void copyToNewSegment(void* to, const void* from, std::size_t size) {
  inHalves(size, [=](std::size_t offset, std::size_t bytes) {
    copyNonZero(static_cast<char*>(to) + offset, static_cast<const char*>(from) + offset, bytes);
  });
}

}  // namespace tolvar
