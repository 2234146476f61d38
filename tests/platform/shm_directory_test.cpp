#include "platform/shm_directory.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "platform/exception.h"
#include "platform/interprocess_lock.h"
#include "platform/shm.h"
#include "tests/support/shm_keys.h"
#include "tests/support/system_calls_guard.h"

namespace {

using testing::Contains;
using testing::Not;
using tolvar_test::ShmKeys;
using tolvar_test::SystemCallsGuard;

TEST(ShmDirectory, TellsWhatTheSystemKnowsOfASegment) {
  const ShmKeys keys;
  EXPECT_FALSE(qel::segmentBehind(keys.data0()));
  qel::ZU_Shm shm;
  shm.init(12345, keys.data0());
  const auto record = qel::segmentBehind(keys.data0());
  ASSERT_TRUE(record);
  EXPECT_EQ(record->id, shm.id());
  EXPECT_EQ(record->key, keys.data0());
  EXPECT_EQ(record->bytes, 12345u);
  EXPECT_EQ(record->mode, 0660u);
  EXPECT_EQ(record->owner, geteuid());
  EXPECT_EQ(record->creator, getpid());
  EXPECT_EQ(record->attached, 1u);
  EXPECT_GT(record->changed, 0);
  EXPECT_EQ(record->lastDetach, 0);
  EXPECT_THAT(qel::processesMapping(shm.id()), Contains(getpid()));
  const int id = shm.id();
  shm.detach();
  EXPECT_EQ(qel::segmentBehind(keys.data0())->attached, 0u);
  EXPECT_THAT(qel::processesMapping(id), Not(Contains(getpid())));
}

TEST(ShmDirectory, ListsSegmentsByAscendingKey) {
  const ShmKeys keys;
  qel::ZU_Shm first, second;
  second.init(200, keys.data1());
  first.init(100, keys.data0());
  const auto all = qel::listSegments();
  EXPECT_TRUE(std::is_sorted(all.begin(), all.end(),
                             [](const auto& a, const auto& b) { return a.key < b.key; }));
  for (const qel::ZU_Shm* shm : {&first, &second})
    EXPECT_TRUE(std::any_of(all.begin(), all.end(),
                            [&](const auto& record) { return record.id == shm->id(); }));
}

TEST(ShmDirectory, CountsSegmentsThatThisUserMayNotSee) {
  const ShmKeys keys;
  qel::ZU_Shm shm;
  shm.init(100, keys.data0());
  static int refusedId;
  refusedId = shm.id();
  SystemCallsGuard guard;
  guard.calls().shmctl = [](int id, int command, shmid_ds* data) {
    const int found = ::shmctl(id, command, data);
    if (command != SHM_STAT || found != refusedId) return found;
    errno = EACCES;
    return -1;
  };
  std::size_t refused = 0;
  for (const qel::ShmRecord& record : qel::listSegments(&refused)) EXPECT_NE(record.id, refusedId);
  EXPECT_GE(refused, 1u);
}

TEST(ShmDirectory, ARefusalIsAnExceptionThatNamesTheKey) {
  const ShmKeys keys;
  qel::ZU_Shm shm;
  shm.init(100, keys.data0());
  SystemCallsGuard guard;
  guard.calls().shmctl = [](int, int, shmid_ds*) {
    errno = EACCES;
    return -1;
  };
  try {
    qel::segmentBehind(keys.data0());
    FAIL() << "nothing was thrown";
  } catch (const qel::ZU_Exception& error) {
    EXPECT_EQ(error.getErrCode(), EACCES);
    EXPECT_NE(std::string(error.what()).find(std::to_string(keys.data0())), std::string::npos);
  }
  EXPECT_THROW(qel::listSegments(), qel::ZU_Exception);
}

TEST(ShmDirectory, TellsWhetherALockIsHeldAndWhoHadItLast) {
  const ShmKeys keys;
  EXPECT_FALSE(qel::semaphoreBehind(keys.size()));
  qel::InterprocessLock lock;
  ASSERT_TRUE(lock.acquire(keys.size(), 0));
  auto record = qel::semaphoreBehind(keys.size());
  ASSERT_TRUE(record);
  EXPECT_TRUE(record->held);
  EXPECT_EQ(record->lastProcess, getpid());
  EXPECT_GT(record->lastChange, 0);
  lock.release();
  EXPECT_FALSE(qel::semaphoreBehind(keys.size())->held);
}

}  // namespace
