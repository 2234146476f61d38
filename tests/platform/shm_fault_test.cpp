// What the segment wrapper does when the operating system refuses or another process interferes.

#include <gtest/gtest.h>
#include <sys/shm.h>

#include <cerrno>
#include <string>

#include "platform/exception.h"
#include "platform/shm.h"
#include "tests/support/shm_keys.h"
#include "tests/support/system_calls_guard.h"

namespace {

using qel::ZU_Exception;
using qel::ZU_Shm;
using tolvar_test::ShmKeys;
using tolvar_test::SystemCallsGuard;

constexpr std::size_t kSize = 10000;

bool exists(key_t key) { return shmget(key, 0, 0) >= 0; }

/// What the failing `init` throws.
ZU_Exception initFailure(ZU_Shm& segment, key_t key) {
  try {
    segment.init(kSize, key);
  } catch (const ZU_Exception& caught) {
    return caught;
  }
  ADD_FAILURE() << "init did not fail";
  return ZU_Exception("");
}

void expectEmpty(const ZU_Shm& segment) {
  EXPECT_EQ(segment.getPointer(), nullptr);
  EXPECT_EQ(segment.size(), 0u);
  EXPECT_EQ(segment.id(), -1);
  EXPECT_FALSE(segment.iscreate());
}

// The injected calls are plain functions, so what they need to know lies here.
int calls = 0;
int detached = 0;
key_t racedKey = 0;

class ShmFault : public testing::Test {
 protected:
  ShmFault() {
    calls = 0;
    detached = 0;
    racedKey = keys.data0();
    guard.calls().shmdt = [](const void* address) {
      ++detached;
      return ::shmdt(address);
    };
  }

  ShmKeys keys;
  SystemCallsGuard guard;
};

TEST_F(ShmFault, ShmgetIsReportedWithKeyAndCause) {
  guard.calls().shmget = [](key_t, size_t, int) {
    errno = ENOSPC;
    return -1;
  };
  ZU_Shm segment;
  const ZU_Exception failure = initFailure(segment, keys.data0());
  EXPECT_EQ(std::string(failure.what()), "[ZU_Shm::init]: shmget failed for key " +
                                             std::to_string(keys.data0()) +
                                             " (errno 28: No space left on device)");
  EXPECT_EQ(failure.getErrCode(), ENOSPC);
  expectEmpty(segment);
  EXPECT_THROW(segment.attach(keys.data0()), ZU_Exception)
      << "only an absent segment is no failure";
}

TEST_F(ShmFault, ShmatOnAnExistingSegmentLeavesItAlone) {
  ZU_Shm creator, segment;
  creator.init(kSize, keys.data0());
  guard.calls().shmat = [](int, const void*, int) {
    errno = EACCES;
    return reinterpret_cast<void*>(-1);
  };
  const ZU_Exception failure = initFailure(segment, keys.data0());
  EXPECT_EQ(std::string(failure.what()), "[ZU_Shm::init]: shmat failed for key " +
                                             std::to_string(keys.data0()) +
                                             ", whose segment belongs to another user; run as that "
                                             "user or as root, or use other keys"
                                             " (errno 13: Permission denied)");
  expectEmpty(segment);
  EXPECT_TRUE(exists(keys.data0()));
  EXPECT_THROW(segment.attach(keys.data0()), ZU_Exception);
}

TEST_F(ShmFault, ShmatOnANewSegmentRemovesItAgain) {
  guard.calls().shmat = [](int, const void*, int) {
    errno = ENOMEM;
    return reinterpret_cast<void*>(-1);
  };
  ZU_Shm segment;
  EXPECT_EQ(initFailure(segment, keys.data0()).getErrCode(), ENOMEM);
  expectEmpty(segment);
  EXPECT_FALSE(exists(keys.data0()));
}

TEST_F(ShmFault, AnUnreadableSizeDetachesAndReports) {
  ZU_Shm creator, segment;
  creator.init(kSize, keys.data0());
  guard.calls().shmctl = [](int id, int command, shmid_ds* data) {
    if (command != IPC_STAT) return ::shmctl(id, command, data);
    errno = EACCES;
    return -1;
  };
  const ZU_Exception failure = initFailure(segment, keys.data0());
  EXPECT_EQ(std::string(failure.what()), "[ZU_Shm::init]: shmctl failed for key " +
                                             std::to_string(keys.data0()) +
                                             ", whose segment belongs to another user; run as that "
                                             "user or as root, or use other keys"
                                             " (errno 13: Permission denied)");
  expectEmpty(segment);
  EXPECT_EQ(detached, 1);
  EXPECT_TRUE(exists(keys.data0()));
}

TEST_F(ShmFault, AnUnreadableSizeOfANewSegmentRemovesIt) {
  guard.calls().shmctl = [](int id, int command, shmid_ds* data) {
    if (command != IPC_STAT) return ::shmctl(id, command, data);
    errno = EPERM;
    return -1;
  };
  ZU_Shm segment;
  EXPECT_EQ(initFailure(segment, keys.data0()).getErrCode(), EPERM);
  EXPECT_EQ(detached, 1);
  EXPECT_FALSE(exists(keys.data0()));
}

TEST_F(ShmFault, ASegmentRemovedBetweenTheCallsIsMadeAnew) {
  ZU_Shm creator, segment;
  creator.init(kSize, keys.data0());
  guard.calls().shmat = [](int id, const void* address, int flags) {
    if (++calls > 1) return ::shmat(id, address, flags);
    ::shmctl(id, IPC_RMID, nullptr);
    errno = EIDRM;
    return reinterpret_cast<void*>(-1);
  };
  segment.init(2 * kSize, keys.data0());
  EXPECT_EQ(calls, 2);
  EXPECT_TRUE(segment.iscreate());
  EXPECT_EQ(segment.size(), 2 * kSize);
  EXPECT_TRUE(exists(keys.data0()));
}

TEST_F(ShmFault, ASegmentThatSomebodyElseCreatesFirstIsAttached) {
  guard.calls().shmget = [](key_t key, size_t size, int flags) {
    // Just before this process creates it, another one does, with a size of its own.
    if ((flags & IPC_CREAT) != 0 && ++calls == 1) ::shmget(key, 3 * kSize, IPC_CREAT | 0660);
    return ::shmget(key, size, flags);
  };
  ZU_Shm segment;
  segment.init(kSize, keys.data0());
  EXPECT_EQ(calls, 1);
  EXPECT_FALSE(segment.iscreate());
  EXPECT_EQ(segment.size(), 3 * kSize);
}

TEST_F(ShmFault, EndlessInterferenceEndsInAFailure) {
  guard.calls().shmat = [](int, const void*, int) {
    ++calls;
    errno = EIDRM;
    return reinterpret_cast<void*>(-1);
  };
  ZU_Shm segment;
  EXPECT_EQ(initFailure(segment, keys.data0()).getErrCode(), EIDRM);
  EXPECT_EQ(calls, 16);
  expectEmpty(segment);
  EXPECT_FALSE(exists(keys.data0()));
}

TEST_F(ShmFault, ARefusedRemovalIsReportedAndStillDetaches) {
  ZU_Shm segment;
  segment.init(kSize, keys.data0());
  guard.calls().shmctl = [](int, int, shmid_ds*) {
    errno = EPERM;
    return -1;
  };
  try {
    segment.del();
    ADD_FAILURE() << "del did not fail";
  } catch (const ZU_Exception& failure) {
    EXPECT_EQ(std::string(failure.what()),
              "[ZU_Shm::del]: shmctl failed for key " + std::to_string(keys.data0()) +
                  ", whose segment another user made, who alone may replace it; run as that user "
                  "or as root, or use other keys (errno 1: Operation not permitted)");
  }
  EXPECT_EQ(segment.getPointer(), nullptr);
  EXPECT_EQ(detached, 1);
}

TEST_F(ShmFault, AFailedInitForgetsTheEarlierSegment) {
  ZU_Shm segment;
  segment.init(kSize, keys.data0());
  ASSERT_TRUE(segment.iscreate());
  guard.calls().shmget = [](key_t, size_t, int) {
    errno = EACCES;
    return -1;
  };
  EXPECT_EQ(initFailure(segment, keys.data1()).getErrCode(), EACCES);
  expectEmpty(segment);
}

}  // namespace
