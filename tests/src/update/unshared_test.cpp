// Starts that find no lock or no segments: the client answers from its own download, and shares it
// as soon as a publication can.
#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>

#include "platform/interprocess_lock.h"
#include "tests/src/update/scene.h"
#include "tests/support/raw_image.h"
#include "tests/support/system_calls_guard.h"

namespace tolvar_test {
namespace {

std::uint32_t versionAt(TolvarAPI& client, std::uint32_t ip) {
  ravel::IPInfo info;
  return client.getIPInfo(ip, &info) ? versionOf(ip, info) : 0;
}

std::atomic<int> refusal{0};

/// Lets the system refuse every new segment with one errno, for a scope.
class NoSegments {
 public:
  explicit NoSegments(int error) {
    refusal = error;
    _guard.calls().shmget = [](key_t key, std::size_t size, int flags) {
      if ((flags & IPC_CREAT) != 0 && refusal != 0) {
        errno = refusal;
        return -1;
      }
      return shmget(key, size, flags);
    };
  }
  ~NoSegments() { refusal = 0; }

 private:
  SystemCallsGuard _guard;
};

/// Both segments have `table`, its names with it, and are the same byte for byte.
void expectBothShare(const ShmKeys& keys, const Table& table) {
  const SegmentView segment0(keys.data0()), segment1(keys.data1());
  for (const SegmentView* segment : {&segment0, &segment1}) {
    EXPECT_EQ(segment->ipStatus(), 1u);
    EXPECT_EQ(segment->codeStatus(), 1u);
    EXPECT_EQ(digestOf(segment->ranges()), digestOf(table.rows));
    EXPECT_EQ(segment->codes(5).at(0).name, table.codes.at(1).content);
  }
  EXPECT_TRUE(segment0.content() == segment1.content());
}

struct UnsharedScene : LateScene {
  TableServer server{service, 10};

  UnsharedScene() {
    access.internals().starterLockMillis = 1;
    access.internals().publisherLockMillis = 1;
  }

  /// Finds no segments, and answers from its own download of the table.
  void beginWithout(const Table& table) {
    NoSegments none(ENOMEM);
    begin();
    server.publish(table);
    ASSERT_TRUE(refresh());
  }

  void expectBothHold(const Table& table) const { expectBothShare(keys, table); }
};

TEST(Unshared, AStartWithoutTheLockTouchesNoSegmentAndAnswersFromItsDownload) {
  UnsharedScene scene;
  plantSmallSegments(scene.keys, 64, 8);
  const std::string before0 = SegmentView(scene.keys.data0()).content();
  const std::string before1 = SegmentView(scene.keys.data1()).content();
  qel::InterprocessLock somebody;
  ASSERT_TRUE(somebody.acquire(scene.keys.size(), 0));
  scene.begin();
  EXPECT_EQ(scene.access.shm(0).getPointer(), nullptr);
  EXPECT_EQ(scene.access.shm(1).getPointer(), nullptr);

  scene.server.publish(selfCheckingTable(1, 25));
  ASSERT_TRUE(scene.refresh());
  EXPECT_EQ(versionAt(scene.client, kFirstAddress + 24 * 256), 1u);
  EXPECT_EQ(scene.client.getOperByID(1), "v1 oper");
  EXPECT_EQ(scene.access.cltMd5(), scene.server.digest());
  EXPECT_EQ(scene.access.hasInitialized(), 3);
  EXPECT_TRUE(SegmentView(scene.keys.data0()).content() == before0);
  EXPECT_TRUE(SegmentView(scene.keys.data1()).content() == before1);
  scene.output.take();
  EXPECT_EQ(textsStarting(scene.output.err, "another process has held the lock").size(), 1u);
}

/// A host whose signals interrupt the wait for the lock when its time is up.
int interruptedWait(int id, sembuf* operations, size_t count, const timespec* limit) {
  const int answer = semtimedop(id, operations, count, limit);
  if (answer != 0 && errno == EAGAIN) errno = EINTR;
  return answer;
}

/// A system that has no memory for operations on semaphores.
int failingOperation(int, sembuf*, size_t, const timespec*) {
  errno = ENOMEM;
  return -1;
}

/// What keeps a start from knowing that nobody else holds the lock keeps it from the segments.
TEST(Unshared, AStartThatCannotTakeTheLockTouchesNoSegment) {
  for (const auto operation : {interruptedWait, failingOperation}) {
    UnsharedScene scene;
    plantSmallSegments(scene.keys, 64, 8);
    qel::InterprocessLock somebody;
    ASSERT_TRUE(somebody.acquire(scene.keys.size(), 0));
    SystemCallsGuard guard;
    guard.calls().semtimedop = operation;
    scene.begin();
    EXPECT_TRUE(scene.access.internals().unshared);
    EXPECT_EQ(scene.access.shm(0).getPointer(), nullptr);
    EXPECT_EQ(scene.client.status().lastError, "share memory: another process holds its lock");
    scene.output.take();
    EXPECT_EQ(textsStarting(scene.output.out, "share memory is used without its lock").size(), 0u);
  }
}

TEST(Unshared, AStartThatIsToldToStopWhileItWaitsForTheLockBlamesNobody) {
  UnsharedScene scene;
  scene.access.internals().starterLockMillis = 3600 * 1000;
  qel::InterprocessLock somebody;
  ASSERT_TRUE(somebody.acquire(scene.keys.size(), 0));
  scene.client.terminate();
  scene.begin();
  EXPECT_TRUE(scene.access.internals().unshared);
  EXPECT_EQ(scene.client.status().lastError, "");
}

TEST(Unshared, TheFirstPublicationThatGetsTheLockSharesTheTables) {
  UnsharedScene scene;
  qel::InterprocessLock somebody;
  ASSERT_TRUE(somebody.acquire(scene.keys.size(), 0));
  scene.begin();
  scene.server.publish(selfCheckingTable(1, 25));
  ASSERT_TRUE(scene.refresh());
  somebody.release();
  const Table next = selfCheckingTable(2, 30);
  scene.server.publish(next);
  ASSERT_TRUE(scene.refresh());
  EXPECT_EQ(versionAt(scene.client, kFirstAddress + 29 * 256), 2u);
  EXPECT_FALSE(scene.access.internals().unshared);
  scene.expectBothHold(next);
}

TEST(Unshared, NamesThatComeLaterBringTheTableAlong) {
  UnsharedScene scene;
  const Table table = selfCheckingTable(1, 25);
  scene.beginWithout(table);
  scene.access.isCheckingCode() = true;
  ASSERT_TRUE(scene.access.checkCodeChangeRequest());
  EXPECT_FALSE(scene.access.isCheckingCode());
  scene.expectBothHold(table);
}

TEST(Unshared, ATableThatComesLaterBringsTheNamesAlong) {
  UnsharedScene scene;
  const Table table = selfCheckingTable(1, 25);
  scene.beginWithout(table);
  scene.access.gathered() = table.rows;
  scene.access.totalWriteData2Shm();
  scene.expectBothHold(table);
}

TEST(Unshared, AnImageThatOthersMadeMeanwhileIsKeptUntilItIsReplaced) {
  UnsharedScene scene;
  const Table theirs = selfCheckingTable(5, 8);
  {
    qel::InterprocessLock somebody;
    ASSERT_TRUE(somebody.acquire(scene.keys.size(), 0));
    scene.begin();
    scene.server.publish(selfCheckingTable(1, 25));
    ASSERT_TRUE(scene.refresh());
  }
  {
    ClockedClient other(scene.clock);
    tolvar::ClientTestAccess access(other);
    access.tolvarPrx() = fakeProxy(scene.service);
    access.fTolvarPrx() = fakeFastProxy(scene.service);
    access.InitializeShareMemory(scene.keys.data0(), scene.keys.data1(), scene.keys.size());
    access.gathered() = theirs.rows;
    access.totalWriteData2Shm();
    scene.server.publish(theirs);
    access.isCheckingCode() = true;
    access.checkCodeChangeRequest();
  }
  scene.expectBothHold(theirs);
  // Only the names are refreshed; the ranges in the image are those that were in it.
  scene.access.isCheckingCode() = true;
  ASSERT_TRUE(scene.access.checkCodeChangeRequest());
  scene.expectBothHold(theirs);
  EXPECT_EQ(versionAt(scene.client, kFirstAddress + 24 * 256), 1u) << "its own table still answers";
}

class WithoutSegments : public testing::TestWithParam<int> {};

TEST_P(WithoutSegments, AStartAnswersFromItsDownloadAndSaysSo) {
  Scene scene;
  TableServer server(scene.service);
  server.publish(selfCheckingTable(1, 25));
  NoSegments none(GetParam());
  {
    TolvarAPI client;
    ASSERT_TRUE(client.initialize(scene.options()));
    EXPECT_EQ(versionAt(client, kFirstAddress + 24 * 256), 1u);
    EXPECT_EQ(client.getOperByID(1), "v1 oper");
    EXPECT_FALSE(client.status().fromImage);
  }
  scene.output.take();
  EXPECT_EQ(textsStarting(scene.output.err, "no share memory to be had").size(), 1u);
  EXPECT_GE(textsStarting(scene.output.err, "still no share memory to be had").size(), 1u);
}

INSTANTIATE_TEST_SUITE_P(Errors, WithoutSegments, testing::Values(ENOMEM, ENOSPC, EINVAL, ENOSYS));

TEST(Unshared, AnImageThatHasOneSegmentOnlyStillAnswersTheStart) {
  Scene scene;
  TableServer server(scene.service);
  const Table table = selfCheckingTable(1, 25);
  server.publish(table);
  {
    TolvarAPI first;
    ASSERT_TRUE(first.initialize(scene.options()));
  }
  ASSERT_EQ(shmctl(qel::ZU_Shm::idOf(scene.keys.data1()), IPC_RMID, nullptr), 0);
  server.setDown(true);
  NoSegments none(ENOSPC);
  TolvarAPI client;
  ASSERT_TRUE(client.initialize(scene.options()));
  EXPECT_TRUE(client.status().fromImage);
  EXPECT_EQ(versionAt(client, kFirstAddress), 1u);
}

std::atomic<std::size_t> largestSegment{SIZE_MAX};

/// Lets the system refuse larger segments than there are with one errno, for a scope: new ones, or
/// with EPERM the removal of old ones.
class NoLargerSegments {
 public:
  NoLargerSegments(std::size_t bytes, int error) {
    largestSegment = bytes;
    refusal = error;
    _guard.calls().shmget = [](key_t key, std::size_t size, int flags) {
      if ((flags & IPC_CREAT) != 0 && size > largestSegment && refusal != EPERM) {
        errno = refusal;
        return -1;
      }
      return shmget(key, size, flags);
    };
    _guard.calls().shmctl = [](int id, int command, shmid_ds* data) {
      if (command == IPC_RMID && refusal == EPERM) {
        errno = refusal;
        return -1;
      }
      return shmctl(id, command, data);
    };
  }

 private:
  SystemCallsGuard _guard;
};

/// Room for 4 ranges and 4 names a table, and the system gives no more.
struct FullScene : StepScene {
  TableServer server{service, 10};
  FullScene() : StepScene(4, 4) {}

  NoLargerSegments noMore(int error) const { return {SegmentView(keys.data0()).bytes(), error}; }
};

class WithoutRoom : public testing::TestWithParam<int> {};

TEST_P(WithoutRoom, AFirstTableAnswersInThisProcessUntilThereIsSome) {
  FullScene scene;
  {
    const NoLargerSegments none = scene.noMore(GetParam());
    scene.server.publish(selfCheckingTable(1, 25));
    ASSERT_TRUE(scene.refresh());
    EXPECT_EQ(scene.access.hasInitialized(), 3);
    EXPECT_EQ(versionAt(scene.client, kFirstAddress + 24 * 256), 1u);
    EXPECT_EQ(scene.access.cltMd5(), scene.server.digest());
    const TolvarStatus status = scene.client.status();
    EXPECT_TRUE(status.failing);
    EXPECT_EQ(status.lastError.rfind("share memory: ", 0), 0u) << status.lastError;
    scene.output.take();
    EXPECT_EQ(textsStarting(scene.output.err, "no room for the tables in share memory").size(), 1u);
  }
  const Table next = selfCheckingTable(2, 30);
  scene.server.publish(next);
  ASSERT_TRUE(scene.refresh());
  EXPECT_EQ(versionAt(scene.client, kFirstAddress + 29 * 256), 2u);
  EXPECT_FALSE(scene.client.status().failing);
  expectBothShare(scene.keys, next);
}

TEST_P(WithoutRoom, ANewerTableAnswersInThisProcessAndTheImageStaysWhole) {
  FullScene scene;
  const Table old = selfCheckingTable(1, 4);
  scene.server.publish(old);
  ASSERT_TRUE(scene.refresh());
  const NoLargerSegments none = scene.noMore(GetParam());
  scene.server.publish(selfCheckingTable(2, 25));
  ASSERT_TRUE(scene.refresh());
  EXPECT_EQ(versionAt(scene.client, kFirstAddress + 24 * 256), 2u);
  const SegmentView segment0(scene.keys.data0()), segment1(scene.keys.data1());
  const SegmentView& ready = segment0.ipStatus() == 1 ? segment0 : segment1;
  EXPECT_EQ(ready.ipStatus(), 1u);
  EXPECT_EQ(digestOf(ready.ranges()), digestOf(old.rows));
}

TEST_P(WithoutRoom, NamesThatNobodyHasYetAnswerInThisProcess) {
  FullScene scene;
  const NoLargerSegments none = scene.noMore(GetParam());
  Table table = selfCheckingTable(1, 4);
  for (int id = 0; id < 50; ++id) table.codes.push_back(code(5, id + 100, "extend"));
  scene.server.publish(table);
  ASSERT_TRUE(scene.refresh());
  EXPECT_EQ(scene.access.hasInitialized(), 3);
  EXPECT_EQ(scene.client.getOperByID(1), "v1 oper");
  EXPECT_EQ(scene.client.getExtendByID(149), "extend");
}

INSTANTIATE_TEST_SUITE_P(Errors, WithoutRoom, testing::Values(ENOSPC, EINVAL, ENOMEM, EPERM));

TEST(Unshared, SegmentsThatMayNotBeUsedAreStillRefused) {
  Scene scene;
  TableServer server(scene.service);
  NoSegments none(EACCES);
  TolvarAPI client;
  EXPECT_FALSE(client.initialize(scene.options()));
}

}  // namespace
}  // namespace tolvar_test
