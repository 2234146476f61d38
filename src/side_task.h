#pragma once

#include <cstddef>
#include <functional>

#include "platform/thread.h"

namespace tolvar {

/// A piece of work done on a second thread while the caller goes on with something else. Where
/// there is no second thread to be had, and when the work fails on it, `finish` does the work
/// (again) on the caller's, so that nothing is lost but time. The work must bear being done a
/// second time after a failure, and share with the caller's only what both just read.
///
/// Used by one thread.
class SideTask final : private qel::ZU_Thread {
 public:
  /// Begins `work`.
  explicit SideTask(std::function<void()> work);

  /// Waits for the work; what became of it is nobody's concern then.
  ~SideTask() override;

  /// Waits until the work is done, or does it. Lets out what it throws here.
  void finish();

 private:
  void run() override;

  const std::function<void()> _work;
  bool _done = false;  ///< written by the second thread, read when it has been joined
};

/// Does `work(begin, end)` for all of 0 to `count`; on two threads from `parallel` on, so many that
/// a second one saves more than it costs.
template <class Work>
void inHalves(std::size_t count, std::size_t parallel, const Work& work) {
  if (count < parallel) return work(std::size_t{0}, count);
  const std::size_t half = count / 2;
  SideTask rest([&] { work(half, count); });
  work(std::size_t{0}, half);
  rest.finish();
}

}  // namespace tolvar
