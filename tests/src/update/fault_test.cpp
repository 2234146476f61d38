#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>

#include "tests/src/update/scene.h"
#include "tests/support/system_calls_guard.h"

namespace tolvar_test {
namespace {

std::atomic<std::size_t> largestSegment{SIZE_MAX};
std::atomic<int> creationsLeft{INT_MAX};

/// Lets the creation of segments fail for a scope: of those above a size, or after a number of
/// them.
class ScarceMemory {
 public:
  ScarceMemory() {
    allow(SIZE_MAX, INT_MAX);
    _guard.calls().shmget = [](key_t key, std::size_t size, int flags) {
      if ((flags & IPC_CREAT) != 0 && (size > largestSegment || creationsLeft-- <= 0)) {
        errno = ENOMEM;
        return -1;
      }
      return shmget(key, size, flags);
    };
  }
  ~ScarceMemory() { allow(SIZE_MAX, INT_MAX); }

  void allow(std::size_t bytes, int creations) {
    largestSegment = bytes;
    creationsLeft = creations;
  }
  void allowAll() { allow(SIZE_MAX, INT_MAX); }

 private:
  SystemCallsGuard _guard;
};

std::uint32_t versionAt(TolvarAPI& client, std::uint32_t ip) {
  ravel::IPInfo info;
  return client.getIPInfo(ip, &info) ? versionOf(ip, info) : 0;
}

struct FaultScene : StepScene {
  TableServer server{service, 10};
  ScarceMemory memory;

  /// Room for 4 ranges and 4 codes a table.
  FaultScene() : StepScene(4, 4) {}

  void expectBothWhole(std::size_t ranges) {
    const SegmentView segment0(keys.data0()), segment1(keys.data1());
    for (const SegmentView* segment : {&segment0, &segment1}) {
      EXPECT_EQ(segment->ipStatus(), 1u);
      EXPECT_EQ(segment->codeStatus(), 1u);
      EXPECT_EQ(segment->nodes(0), ranges);
      EXPECT_EQ(digestOf(segment->ranges()), access.cltMd5());
    }
    EXPECT_TRUE(segment0.content() == segment1.content());
  }
};

TEST(Fault, TableThatCouldNotBePublishedIsPublishedLaterWithoutDownloadingItAgain) {
  FaultScene scene;
  scene.server.publish(selfCheckingTable(1, 4));
  ASSERT_TRUE(scene.refresh());
  scene.access.posFile().mmap("downloadPos.dat", 9);

  scene.server.publish(selfCheckingTable(2, 25));
  scene.memory.allow(SegmentView(scene.keys.data0()).bytes(), INT_MAX);
  scene.makeCheckDue();
  scene.service->forgetCalls();
  scene.output.take();
  ASSERT_TRUE(scene.access.checkChange());
  for (int page = 0; page < 3; ++page) EXPECT_TRUE(scene.access.totalDownloadRequest());
  scene.output.take();
  EXPECT_EQ(textsAt(scene.output.err, 957).size(), 1u);
  EXPECT_TRUE(scene.access.isTotalDownLoading());
  EXPECT_EQ(versionAt(scene.client, kFirstAddress), 1u);
  EXPECT_EQ(readFile("downloadPos.dat"), std::string(9, '\0'));

  EXPECT_TRUE(scene.access.totalDownloadRequest()) << "still no memory";
  EXPECT_TRUE(scene.access.isTotalDownLoading());
  scene.memory.allowAll();
  EXPECT_TRUE(scene.access.totalDownloadRequest());
  EXPECT_FALSE(scene.access.isTotalDownLoading());
  EXPECT_EQ(scene.access.cltMd5(), scene.server.digest());
  EXPECT_EQ(versionAt(scene.client, kFirstAddress + 24 * 256), 2u);
  EXPECT_EQ(scene.callsStarting("totalDownloadIPInfo"),
            (std::vector<std::string>{
                "totalDownloadIPInfo 0 0 50000", "totalDownloadIPInfo 1002 10 50000",
                "totalDownloadIPInfo 1002 20 50000", "totalDownloadIPInfo 1002 25 50000",
                "totalDownloadIPInfo 1002 25 50000"}));
  EXPECT_NE(readFile("downloadPos.dat"), std::string(9, '\0'));
  scene.expectBothWhole(25);
}

TEST(Fault, SegmentThatCannotGrowKeepsWhatItHeld) {
  FaultScene scene;
  scene.server.publish(selfCheckingTable(1, 4));
  ASSERT_TRUE(scene.refresh());
  scene.server.publish(selfCheckingTable(2, 25));
  scene.memory.allow(SegmentView(scene.keys.data0()).bytes(), INT_MAX);
  EXPECT_FALSE(scene.refresh(5));
  for (const key_t key : {scene.keys.data0(), scene.keys.data1()})
    EXPECT_EQ(digestOf(SegmentView(key).ranges()), digestOf(selfCheckingTable(1, 4).rows));
  scene.memory.allowAll();
  ASSERT_TRUE(scene.finish());
  scene.expectBothWhole(25);
}

TEST(Fault, PairLeftOutOfStepIsRepairedBeforeTheCodesArePublished) {
  FaultScene scene;
  scene.server.publish(selfCheckingTable(1, 25));
  scene.access.isTotalDownLoading() = true;
  scene.access.isCheckingCode() = true;
  ASSERT_TRUE(scene.access.checkCodeChangeRequest());
  // The segment written grows, its twin finds no memory.
  scene.memory.allow(SIZE_MAX, 1);
  for (int page = 0; page < 3; ++page) scene.access.totalDownloadRequest();
  EXPECT_FALSE(scene.access.isTotalDownLoading()) << "the table is in use, though not copied";
  EXPECT_EQ(scene.access.cltMd5(), scene.server.digest());
  EXPECT_EQ(versionAt(scene.client, kFirstAddress), 1u);
  {
    const SegmentView segment1(scene.keys.data1());
    EXPECT_EQ(segment1.ipStatus(), 1u);
    EXPECT_EQ(segment1.nodes(0), 25u);
  }

  // The codes go into the twin next, and from there over the segment with the table.
  scene.memory.allowAll();
  scene.access.isCheckingCode() = true;
  scene.access.checkCodeChangeRequest();
  scene.access.checkCodeChangeRequest();
  EXPECT_FALSE(scene.access.isCheckingCode());
  scene.expectBothWhole(25);
}

TEST(Fault, CodeRefreshThatFailsHalfwayDoesNotCostTheGoodCodes) {
  FaultScene scene;
  scene.server.publish(selfCheckingTable(1, 4));
  ASSERT_TRUE(scene.refresh());
  ASSERT_EQ(scene.access.vectorIP(), &scene.access.ipVector(1));
  ASSERT_EQ(scene.access.codeVectorInUse(0), &scene.access.codeVector(0, 1));

  Table next = selfCheckingTable(2, 3);
  for (int id = 0; id < 50; ++id) next.codes.push_back(code(5, id, "extend"));
  scene.server.publish(next);
  scene.memory.allow(SegmentView(scene.keys.data0()).bytes(), INT_MAX);
  scene.makeCheckDue();
  ASSERT_TRUE(scene.access.checkChange());
  ASSERT_TRUE(scene.access.checkCodeChangeRequest());
  EXPECT_TRUE(scene.access.isCheckingCode()) << "it failed";
  EXPECT_EQ(SegmentView(scene.keys.data0()).codeStatus(), 2u);

  ASSERT_TRUE(scene.access.totalDownloadRequest());
  EXPECT_FALSE(scene.access.isTotalDownLoading());
  scene.expectBothWhole(3);
  for (const key_t key : {scene.keys.data0(), scene.keys.data1()}) {
    const auto names = SegmentView(key).codes(5);
    ASSERT_EQ(names.size(), 1u);
    EXPECT_EQ(names[0].name, "v1 oper");
  }
  scene.memory.allowAll();
  ASSERT_TRUE(scene.access.checkCodeChangeRequest());
  EXPECT_FALSE(scene.access.isCheckingCode());
  scene.expectBothWhole(3);
  EXPECT_EQ(SegmentView(scene.keys.data0()).codes(4).size(), 50u);
}

TEST(Fault, SegmentLostWhileGrowingIsMadeAnewWhenThereIsMemoryAgain) {
  FaultScene scene;
  scene.server.publish(selfCheckingTable(1, 4));
  ASSERT_TRUE(scene.refresh());
  scene.server.publish(selfCheckingTable(2, 25));
  scene.memory.allow(0, 0);
  EXPECT_FALSE(scene.refresh(4)) << "neither the larger segment nor one of the old size";
  EXPECT_EQ(versionAt(scene.client, kFirstAddress), 1u);
  EXPECT_EQ(scene.client.getOperByID(2), "v2 oper") << "the codes needed no room";
  scene.memory.allowAll();
  ASSERT_TRUE(scene.finish());
  EXPECT_EQ(scene.access.cltMd5(), scene.server.digest());
  EXPECT_EQ(versionAt(scene.client, kFirstAddress + 24 * 256), 2u);
  scene.expectBothWhole(25);
}

TEST(Fault, SegmentThatCannotBeRemovedIsTriedAgain) {
  FaultScene scene;
  scene.server.publish(selfCheckingTable(1, 4));
  ASSERT_TRUE(scene.refresh());
  scene.server.publish(selfCheckingTable(2, 25));
  SystemCallsGuard guard;
  static std::atomic<bool> refuse;
  refuse = true;
  guard.calls().shmctl = [](int id, int command, shmid_ds* data) {
    if (command == IPC_RMID && refuse) {
      errno = EPERM;
      return -1;
    }
    return shmctl(id, command, data);
  };
  EXPECT_FALSE(scene.refresh(4));
  EXPECT_EQ(versionAt(scene.client, kFirstAddress), 1u);
  refuse = false;
  ASSERT_TRUE(scene.finish());
  EXPECT_EQ(scene.access.cltMd5(), scene.server.digest());
  scene.expectBothWhole(25);
}

TEST(Fault, UpdateThreadThatCannotStartIsAFailureOfInitialize) {
  Scene scene;
  plantSmallSegments(scene.keys, 8, 8);
  TableServer server(scene.service);
  static std::atomic<int> threads;
  threads = 0;
  SystemCallsGuard guard;
  // The reporter's thread starts first.
  guard.calls().pthreadCreate = [](pthread_t* thread, const pthread_attr_t* attributes,
                                   void* (*body)(void*), void* argument) {
    return ++threads == 2 ? EAGAIN : pthread_create(thread, attributes, body, argument);
  };
  TolvarAPI client;
  EXPECT_FALSE(client.initialize(scene.options()));
  scene.output.take();
  EXPECT_EQ(textsStarting(scene.output.out, "initialize exception:[ZU_Thread::start]").size(), 1u);
}

}  // namespace
}  // namespace tolvar_test
