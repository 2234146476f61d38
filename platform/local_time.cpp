#include "platform/local_time.h"

#include <pthread.h>

#include <mutex>

namespace qel {
namespace {

/// Held while converting, and by a thread that forks. Never destroyed, because static objects may
/// log on their way out.
constinit std::mutex converting;

void lockForFork() { converting.lock(); }

void unlockAfterFork() { converting.unlock(); }

/// Registered as the program or library is loaded: at the first conversion would be too late for a
/// fork that comes in the middle of it.
[[maybe_unused]] const int registered =
    pthread_atfork(lockForFork, unlockAfterFork, unlockAfterFork);

}  // namespace

std::tm localTime(std::time_t seconds) noexcept {
  std::tm local{};
  const std::lock_guard hold(converting);
  localtime_r(&seconds, &local);
  return local;
}

}  // namespace qel
