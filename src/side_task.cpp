#include "src/side_task.h"

#include <utility>

namespace tolvar {

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

}  // namespace tolvar
