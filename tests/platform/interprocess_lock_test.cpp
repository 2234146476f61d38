#include "platform/interprocess_lock.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/sem.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>

#include "platform/exception.h"
#include "platform/system_calls.h"
#include "tests/support/shm_keys.h"
#include "tests/support/system_calls_guard.h"

namespace {

using qel::InterprocessLock;
using tolvar_test::ShmKeys;

/// A system that lets a lock be taken and refuses to give one back.
int takeOnly(int id, sembuf* operations, size_t count, const timespec* limit) {
  if (operations[0].sem_op >= 0) return semtimedop(id, operations, count, limit);
  errno = ENOMEM;
  return -1;
}

TEST(InterprocessLock, IsHeldByOneAtATime) {
  const ShmKeys keys;
  InterprocessLock first, second;
  EXPECT_TRUE(first.acquire(keys.size(), 0));
  EXPECT_FALSE(second.acquire(keys.size(), 0));
  first.release();
  EXPECT_TRUE(second.acquire(keys.size(), 0));
}

TEST(InterprocessLock, IsReleasedByTheDestructor) {
  const ShmKeys keys;
  { EXPECT_TRUE(InterprocessLock().acquire(keys.size(), 0)); }
  EXPECT_TRUE(InterprocessLock().acquire(keys.size(), 0));
}

TEST(InterprocessLock, ReleasingTwiceGivesNothingAway) {
  const ShmKeys keys;
  InterprocessLock first, second, third;
  ASSERT_TRUE(first.acquire(keys.size(), 0));
  first.release();
  first.release();
  ASSERT_TRUE(second.acquire(keys.size(), 0));
  first.release();
  EXPECT_FALSE(third.acquire(keys.size(), 0));
}

TEST(InterprocessLock, AKilledHolderReleasesIt) {
  const ShmKeys keys;
  int ready[2];
  ASSERT_EQ(pipe(ready), 0);
  const pid_t child = fork();
  if (child == 0) {
    InterprocessLock lock;
    const char byte = lock.acquire(keys.size(), 0) ? 'y' : 'n';
    if (write(ready[1], &byte, 1) != 1) _exit(1);
    for (;;) pause();
  }
  char byte = 0;
  ASSERT_EQ(read(ready[0], &byte, 1), 1);
  EXPECT_EQ(byte, 'y');
  InterprocessLock lock;
  EXPECT_FALSE(lock.acquire(keys.size(), 0));
  kill(child, SIGKILL);
  waitpid(child, nullptr, 0);
  EXPECT_TRUE(lock.acquire(keys.size(), 10000));
  close(ready[0]);
  close(ready[1]);
}

TEST(InterprocessLock, AForkedChildDoesNotGiveItsParentsLockBack) {
  const ShmKeys keys;
  InterprocessLock lock;
  ASSERT_TRUE(lock.acquire(keys.size(), 0));
  const pid_t child = fork();
  if (child == 0) {
    lock.release();
    _exit(0);
  }
  waitpid(child, nullptr, 0);
  EXPECT_FALSE(InterprocessLock().acquire(keys.size(), 0));
}

TEST(InterprocessLock, ARemovedSemaphoreIsMadeAgain) {
  const ShmKeys keys;
  InterprocessLock lock;
  ASSERT_TRUE(lock.acquire(keys.size(), 0));
  semctl(semget(keys.size(), 0, 0), 0, IPC_RMID);
  lock.release();
  EXPECT_TRUE(lock.acquire(keys.size(), 0));
}

TEST(InterprocessLock, IsReadableAndWritableForTheGroupOnly) {
  const ShmKeys keys;
  InterprocessLock lock;
  ASSERT_TRUE(lock.acquire(keys.size(), 0));
  semid_ds description{};
  ASSERT_EQ(semctl(semget(keys.size(), 0, 0), 0, IPC_STAT, &description), 0);
  EXPECT_EQ(description.sem_perm.mode & 0777, 0660);
}

TEST(InterprocessLock, ARefusedSemaphoreIsAnExceptionThatNamesTheKey) {
  const ShmKeys keys;
  tolvar_test::SystemCallsGuard guard;
  guard.calls().semget = [](key_t, int, int) {
    errno = ENOSPC;
    return -1;
  };
  InterprocessLock lock;
  try {
    lock.acquire(keys.size(), 0);
    FAIL() << "no exception";
  } catch (const qel::ZU_Exception& error) {
    EXPECT_NE(std::string(error.what()).find(std::to_string(keys.size())), std::string::npos);
    EXPECT_EQ(error.getErrCode(), ENOSPC);
  }
}

TEST(InterprocessLock, AReleaseThatTheSystemRefusesIsRepeatedBeforeTheNextUse) {
  const ShmKeys keys;
  InterprocessLock lock;
  {
    tolvar_test::SystemCallsGuard guard;
    ASSERT_TRUE(lock.acquire(keys.size(), 0));
    guard.calls().semtimedop = [](int, sembuf*, size_t, const timespec*) {
      errno = ENOMEM;
      return -1;
    };
    lock.release();
  }
  EXPECT_FALSE(InterprocessLock().acquire(keys.size(), 0));
  lock.release();
  EXPECT_TRUE(InterprocessLock().acquire(keys.size(), 0));
}

/// A lock that its holder could not give back.
class StuckLock : public testing::Test {
 protected:
  StuckLock() {
    EXPECT_TRUE(lock.acquire(keys.size(), 0));
    _guard.calls().semtimedop = takeOnly;
    lock.release();
  }

  const ShmKeys keys;
  InterprocessLock lock;

 private:
  tolvar_test::SystemCallsGuard _guard;
};

TEST_F(StuckLock, StaysWithItsHolderWhoMayTakeItAgainAtOnce) {
  EXPECT_TRUE(lock.held());
  EXPECT_TRUE(lock.acquire(keys.size(), 0)) << "a lock waits for itself";
  EXPECT_FALSE(InterprocessLock().acquire(keys.size(), 0));
}

TEST_F(StuckLock, IsTakenAnewWhenItsSemaphoreWasRemoved) {
  semctl(semget(keys.size(), 0, 0), 0, IPC_RMID);
  EXPECT_TRUE(lock.acquire(keys.size(), 0));
  EXPECT_FALSE(InterprocessLock().acquire(keys.size(), 0));
}

}  // namespace
