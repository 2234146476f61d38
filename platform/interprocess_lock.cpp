#include "platform/interprocess_lock.h"

#include <cerrno>
#include <ctime>
#include <string>

#include "platform/clock.h"
#include "platform/exception.h"
#include "platform/system_calls.h"

namespace qel {
namespace {

constexpr int kMode = 0660;
constexpr int kReleaseAttempts = 8;

/// A new semaphore is 0, which is free.
int openSemaphore(key_t key) {
  const int id = systemCalls().semget(key, 1, IPC_CREAT | kMode);
  if (id < 0) {
    throw ZU_Exception("[InterprocessLock::acquire]: semget failed for key " + std::to_string(key),
                       errno);
  }
  return id;
}

}  // namespace

bool InterprocessLock::acquire(key_t key, int milliseconds) {
  release();
  if (held() && _key == key && openSemaphore(key) == _id) return true;
  const std::int64_t deadline = systemClock().steadyMillis() + milliseconds;
  for (;;) {
    const int id = openSemaphore(key);
    const std::int64_t left = deadline - systemClock().steadyMillis();
    timespec limit{};
    if (left > 0) {
      limit.tv_sec = left / 1000;
      limit.tv_nsec = static_cast<long>(left % 1000) * 1000000L;
    }
    // One operation: wait until nobody holds it and take it, to be undone when the process ends.
    sembuf take[2] = {{0, 0, 0}, {0, 1, SEM_UNDO}};
    if (systemCalls().semtimedop(id, take, 2, &limit) == 0) {
      _id = id;
      _key = key;
      _process = getpid();
      return true;
    }
    const int error = errno;
    if (error == EAGAIN) return false;
    const bool again = error == EINTR || error == EIDRM || error == EINVAL;
    if (!again || left <= 0) {
      throw ZU_Exception(
          "[InterprocessLock::acquire]: semtimedop failed for key " + std::to_string(key), error);
    }
  }
}

void InterprocessLock::release() noexcept {
  if (_id < 0) return;
  sembuf give = {0, -1, IPC_NOWAIT | SEM_UNDO};
  // A lock that is not given back keeps every publisher of the host out until this process ends, so
  // one that could not be is tried again now and before it is next taken.
  bool held = _process == getpid();
  for (int attempt = 0; held && attempt < kReleaseAttempts; ++attempt) {
    held =
        systemCalls().semtimedop(_id, &give, 1, nullptr) != 0 && errno != EIDRM && errno != EINVAL;
  }
  if (!held) _id = -1;
}

}  // namespace qel
