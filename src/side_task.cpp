#include "src/side_task.h"

#include <utility>

#include "platform/shared_write_point.h"

namespace tolvar {
namespace {

/// Below this a second thread costs more than it saves, in bytes.
constexpr std::size_t kParallelCopyBytes = std::size_t{8} << 20;

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
  if (size < kParallelCopyBytes) {
    qel::sharedCopy("segment content", to, from, size);
    return;
  }
  const std::size_t half = size / 2;
  SideTask rest([=] {
    qel::sharedCopy("segment content", static_cast<char*>(to) + half,
                    static_cast<const char*>(from) + half, size - half);
  });
  qel::sharedCopy("segment content", to, from, half);
  rest.finish();
}

}  // namespace tolvar
