#pragma once

#include <sys/types.h>

#include "platform/exception.h"

namespace qel {

/// There is no lock to be had behind a key: the system refuses its semaphore, or what lies there is
/// somebody else's.
class LockRefused : public ZU_Exception {
 public:
  using ZU_Exception::ZU_Exception;
};

/// A lock between processes: a set of one System V semaphore, 0 free and anything else held. The
/// operating system releases it when the holding process ends, however it ends. Not recursive: a
/// thread that asks for a lock that its own process holds waits like any other.
///
/// A process that replaces its program (execve) keeps what it held, and no object knows. The value
/// of a held semaphore is a number of the program that took it, so the next one finds and takes
/// over what is left of the one before; by chance, once in 32767 times, it has to wait like any
/// other.
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
  /// LockRefused when the semaphore cannot be made or opened, or the set behind `key` is not of
  /// one, which is then left untouched; ZU_Exception when the system fails to operate on it.
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
