#include "platform/interprocess_lock.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/sem.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <string>

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

/// An operation that does not come about, with the errno that a test gives.
int missedError = 0;
int missed(int, sembuf*, size_t, const timespec*) {
  errno = missedError;
  return -1;
}

/// Asks for the lock behind `key`, and expects a refusal that names the key.
void expectRefusal(key_t key, int error) {
  InterprocessLock lock;
  try {
    lock.acquire(key, 0);
    FAIL() << "no exception";
  } catch (const qel::LockRefused& refusal) {
    EXPECT_NE(std::string(refusal.what()).find(std::to_string(key)), std::string::npos);
    EXPECT_EQ(refusal.getErrCode(), error);
  }
  EXPECT_FALSE(lock.held());
}

/// Runs the program that takes the lock behind `key` and replaces itself; answers its exit status.
int lockOverExec(key_t key) {
  const std::string text = std::to_string(key);
  const pid_t child = fork();
  if (child == 0) {
    execl(TOLVAR_LOCK_OVER_EXEC, TOLVAR_LOCK_OVER_EXEC, text.c_str(), nullptr);
    _exit(127);
  }
  int status = 0;
  if (waitpid(child, &status, 0) != child || !WIFEXITED(status)) return -1;
  return WEXITSTATUS(status);
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

TEST(InterprocessLock, AProgramTakesOverWhatTheOneBeforeItInItsProcessHeld) {
  const ShmKeys keys;
  // Two programs draw the same number once in 32767 times; not twice in a row.
  int status = lockOverExec(keys.size());
  if (status != 0) status = lockOverExec(keys.size());
  EXPECT_EQ(status, 0) << "see lock_over_exec.cpp for what failed";
  EXPECT_TRUE(InterprocessLock().acquire(keys.size(), 0));
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
  expectRefusal(keys.size(), ENOSPC);
}

TEST(InterprocessLock, ASetOfSeveralSemaphoresIsRefusedAndStaysUntouched) {
  const ShmKeys keys;
  const int set = semget(keys.size(), 3, IPC_CREAT | 0600);
  ASSERT_GE(set, 0);
  expectRefusal(keys.size(), 0);
  for (int i = 0; i < 3; ++i) EXPECT_EQ(semctl(set, i, GETVAL), 0);
  EXPECT_EQ(semctl(set, 0, GETPID), 0) << "somebody operated on it";
}

TEST(InterprocessLock, ASemaphoreThatMayNotBeLookedAtIsRefused) {
  const ShmKeys keys;
  tolvar_test::SystemCallsGuard guard;
  guard.calls().semctl = [](int, int, int, semid_ds*) {
    errno = EACCES;
    return -1;
  };
  expectRefusal(keys.size(), EACCES);
}

TEST(InterprocessLock, WhatInterruptsAWaitWithNoTimeLeftIsNotAnError) {
  const ShmKeys keys;
  tolvar_test::SystemCallsGuard guard;
  guard.calls().semtimedop = missed;
  for (const int error : {EINTR, EIDRM, EINVAL}) {
    missedError = error;
    InterprocessLock lock;
    EXPECT_FALSE(lock.acquire(keys.size(), 0)) << error;
    EXPECT_FALSE(lock.held());
  }
}

TEST(InterprocessLock, AnOperationThatTheSystemFailsToDoIsNoRefusal) {
  const ShmKeys keys;
  tolvar_test::SystemCallsGuard guard;
  guard.calls().semtimedop = missed;
  missedError = ENOMEM;
  try {
    InterprocessLock().acquire(keys.size(), 0);
    FAIL() << "no exception";
  } catch (const qel::LockRefused& error) {
    FAIL() << error.what();
  } catch (const qel::ZU_Exception& error) {
    EXPECT_EQ(error.getErrCode(), ENOMEM);
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
