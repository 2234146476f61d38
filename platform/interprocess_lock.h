#pragma once

#include <sys/types.h>

namespace qel {

/// A lock between processes: one System V semaphore, 0 free and 1 held. The operating system
/// releases it when the holding process ends, however it ends. Not recursive: a thread that asks
/// for a lock that its own process holds waits like any other.
///
/// Used by one thread at a time.
class InterprocessLock {
 public:
  InterprocessLock() = default;
  ~InterprocessLock() { release(); }
  InterprocessLock(const InterprocessLock&) = delete;
  InterprocessLock& operator=(const InterprocessLock&) = delete;

  /// Waits up to `milliseconds` for the semaphore behind `key`, which is made (mode 0660) when
  /// there is none; one that is removed meanwhile is made again. Answers false when the time ran
  /// out, and true at once when this object could not give that very lock back before. Throws
  /// ZU_Exception when the system refuses the semaphore.
  bool acquire(key_t key, int milliseconds);

  /// Gives the lock back; does nothing when it is not held, or was taken by the process that this
  /// one was forked from.
  void release() noexcept;

  bool held() const noexcept { return _id >= 0; }

 private:
  int _id = -1;        ///< of the semaphore set while held
  key_t _key = 0;      ///< behind which it was found
  pid_t _process = 0;  ///< that took it
};

}  // namespace qel
