#include "platform/interprocess_lock.h"

#include <sys/auxv.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <string>

#include "platform/clock.h"
#include "platform/system_calls.h"

namespace qel {
namespace {

constexpr int kMode = 0660;
constexpr int kReleaseAttempts = 8;
/// Largest value of a semaphore.
constexpr std::uint64_t kMostValue = 32767;

std::string describe(const char* call, key_t key) {
  return "[InterprocessLock::acquire]: " + std::string(call) + " failed for key " +
         std::to_string(key);
}

bool isRemoved(int error) { return error == EIDRM || error == EINVAL; }

/// A new semaphore is 0, which is free. One that is removed meanwhile shows when it is used.
int openSemaphore(key_t key) {
  const int id = systemCalls().semget(key, 1, IPC_CREAT | kMode);
  if (id < 0) throw LockRefused(describe("semget", key), errno);
  semid_ds set{};
  if (systemCalls().semctl(id, 0, IPC_STAT, &set) != 0) {
    if (isRemoved(errno)) return id;
    throw LockRefused(describe("semctl", key), errno);
  }
  // The first of several means something else to whoever made them.
  if (set.sem_nsems != 1) {
    throw LockRefused("the semaphore set behind key " + std::to_string(key) + " has " +
                      std::to_string(set.sem_nsems) +
                      " semaphores and is no lock of this library; choose another key or remove "
                      "the set");
  }
  return id;
}

/// What a semaphore holds while this program has it: never 0, and drawn anew by the system for
/// every program that a process runs.
short ownMark() noexcept {
  const unsigned long address = getauxval(AT_RANDOM);
  std::uint64_t random = 0;
  if (address != 0) std::memcpy(&random, reinterpret_cast<const void*>(address), sizeof random);
  return static_cast<short>(1 + random % kMostValue);
}

/// Takes a semaphore that this process still holds for a program that it ran before. False when it
/// is no such one.
bool takeOverFromFormerProgram(int id) noexcept {
  // In this order: where this process operated on it last, it is still what it was at first.
  const int value = systemCalls().semctl(id, 0, GETVAL, nullptr);
  if (systemCalls().semctl(id, 0, GETPID, nullptr) != getpid()) return false;
  if (value <= 0 || value == ownMark()) return false;
  // All or nothing, so that only one of several threads gets it.
  sembuf exchange[] = {{0, static_cast<short>(-value), IPC_NOWAIT | SEM_UNDO},
                       {0, 0, IPC_NOWAIT},
                       {0, ownMark(), SEM_UNDO}};
  return systemCalls().semtimedop(id, exchange, std::size(exchange), nullptr) == 0;
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
    sembuf take[] = {{0, 0, 0}, {0, ownMark(), SEM_UNDO}};
    int error = 0;
    if (systemCalls().semtimedop(id, take, std::size(take), &limit) != 0) error = errno;
    if (error == 0 || (error == EAGAIN && takeOverFromFormerProgram(id))) {
      _id = id;
      _key = key;
      _process = getpid();
      return true;
    }
    if (error == EAGAIN) return false;
    if (error != EINTR && !isRemoved(error)) throw ZU_Exception(describe("semtimedop", key), error);
    if (left <= 0) return false;
  }
}

void InterprocessLock::release() noexcept {
  if (_id < 0) return;
  sembuf give = {0, static_cast<short>(-ownMark()), IPC_NOWAIT | SEM_UNDO};
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
