// lock_over_exec KEY: takes the lock behind KEY, replaces itself by a new run of itself, and looks
// from there at what became of the lock. The exit status tells the first thing that is wrong.

#include <sys/sem.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>

#include "platform/interprocess_lock.h"

namespace {

enum Finding {
  kAsItShouldBe = 0,
  kNotTakenAtFirst = 10,
  kNotReplaced,
  kNothingLeftOver,
  kAChildTookIt,
  kNotTakenOver,
  kTakenOverTwice,
  kNotGivenBack,
};

/// True when a child of this process gets the lock, which its end then releases.
bool childGets(key_t key) {
  const pid_t child = fork();
  if (child == 0) {
    qel::InterprocessLock lock;
    _exit(lock.acquire(key, 0) ? 0 : 1);
  }
  int status = 0;
  return waitpid(child, &status, 0) == child && status == 0;
}

Finding takeAndReplace(const char* program, const char* key) {
  qel::InterprocessLock lock;
  if (!lock.acquire(std::atoi(key), 0)) return kNotTakenAtFirst;
  execl("/proc/self/exe", program, key, "replaced", nullptr);
  return kNotReplaced;
}

Finding lookAfterwards(key_t key) {
  if (semctl(semget(key, 0, 0), 0, GETVAL) == 0) return kNothingLeftOver;
  if (childGets(key)) return kAChildTookIt;
  qel::InterprocessLock first, second;
  if (!first.acquire(key, 0)) return kNotTakenOver;
  if (second.acquire(key, 0) || childGets(key)) return kTakenOverTwice;
  first.release();
  return childGets(key) ? kAsItShouldBe : kNotGivenBack;
}

}  // namespace

int main(int count, char** arguments) {
  if (count == 2) return takeAndReplace(arguments[0], arguments[1]);
  return lookAfterwards(std::atoi(arguments[1]));
}
