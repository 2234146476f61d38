#pragma once

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

/// Copies `size` bytes into a shared segment, large ones on two threads. The blocks do not overlap.
void copyToSegment(void* to, const void* from, std::size_t size);

/// The same for a segment of zeros. What is zero anyway is not written: the system need not provide
/// memory for the room that a fresh image leaves, which is most of it.
void copyToNewSegment(void* to, const void* from, std::size_t size);

}  // namespace tolvar
