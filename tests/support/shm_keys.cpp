#include "tests/support/shm_keys.h"

#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <unistd.h>

#include <atomic>

namespace tolvar_test {
namespace {

bool inUse(key_t key) { return shmget(key, 0, 0) >= 0 || semget(key, 0, 0) >= 0; }

}  // namespace

ShmKeys::ShmKeys() {
  // Keys spread by process id and by a sequence within it; a taken one is passed over.
  static std::atomic<unsigned> sequence{0};
  do {
    const unsigned number = sequence.fetch_add(1);
    _first = static_cast<key_t>(
        0x40000000u | ((static_cast<unsigned>(getpid()) * 64u + number) * 4u & 0x3FFFFFFCu));
  } while (inUse(_first) || inUse(_first + 1) || inUse(_first + 2));
}

ShmKeys::~ShmKeys() { removeSegments(); }

void ShmKeys::removeSegments() const {
  for (key_t key = _first; key < _first + 3; ++key) {
    const int segment = shmget(key, 0, 0);
    if (segment >= 0) shmctl(segment, IPC_RMID, nullptr);
    const int semaphore = semget(key, 0, 0);
    if (semaphore >= 0) semctl(semaphore, 0, IPC_RMID);
  }
}

}  // namespace tolvar_test
