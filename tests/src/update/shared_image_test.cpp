// Several processes on one image: the lock they publish and start under, and segments that another
// one replaced.
#include <gtest/gtest.h>
#include <sys/shm.h>

#include <future>
#include <thread>

#include "platform/interprocess_lock.h"
#include "tests/src/update/scene.h"

namespace tolvar_test {
namespace {

std::uint32_t versionAt(TolvarAPI& client, std::uint32_t ip) {
  ravel::IPInfo info;
  return client.getIPInfo(ip, &info) ? versionOf(ip, info) : 0;
}

/// A second client on the segments of a scene, with its own service.
struct Neighbour {
  explicit Neighbour(StepScene& scene) : client(scene.clock), access(client) {
    access.tolvarPrx() = fakeProxy(service);
    access.fTolvarPrx() = fakeFastProxy(service);
    access.InitializeShareMemory(scene.keys.data0(), scene.keys.data1(), scene.keys.size());
  }

  void publish(const Table& table) {
    server.publish(table);
    access.lastCheckFileChanged() = 0;
    access.checkChange();
    for (int pass = 0; pass < 100 && (access.isTotalDownLoading() || access.isCheckingCode());
         ++pass) {
      access.totalDownloadRequest();
      access.checkCodeChangeRequest();
    }
    EXPECT_FALSE(access.isTotalDownLoading() || access.isCheckingCode());
  }

  std::shared_ptr<FakeService> service = std::make_shared<FakeService>();
  TableServer server{service, 10};
  ClockedClient client;
  tolvar::ClientTestAccess access;
};

struct ImageScene : StepScene {
  TableServer server{service, 10};

  /// Room for 4 ranges and 4 codes a table.
  ImageScene() : StepScene(4, 4) { access.internals().publisherLockMillis = 1; }

  void expectBothHold(const std::string& digest) {
    const SegmentView segment0(keys.data0()), segment1(keys.data1());
    for (const SegmentView* segment : {&segment0, &segment1}) {
      EXPECT_EQ(segment->ipStatus(), 1u);
      EXPECT_EQ(segment->codeStatus(), 1u);
      EXPECT_EQ(digestOf(segment->ranges()), digest);
    }
    EXPECT_TRUE(segment0.content() == segment1.content());
  }
};

TEST(SharedImage, APublisherThatDoesNotGetTheLockKeepsItsTableAndTriesAgain) {
  ImageScene scene;
  scene.server.publish(selfCheckingTable(1, 4));
  ASSERT_TRUE(scene.refresh());
  scene.server.publish(selfCheckingTable(2, 4));
  qel::InterprocessLock somebody;
  ASSERT_TRUE(somebody.acquire(scene.keys.size(), 0));
  EXPECT_FALSE(scene.refresh(3));
  EXPECT_EQ(versionAt(scene.client, kFirstAddress), 1u);
  somebody.release();
  ASSERT_TRUE(scene.finish());
  EXPECT_EQ(versionAt(scene.client, kFirstAddress), 2u);
  scene.expectBothHold(scene.access.cltMd5());
}

TEST(SharedImage, TheLockIsFreeDuringRemoteCallsAndAfterThem) {
  ImageScene scene;
  scene.server.publish(selfCheckingTable(1, 25));
  int calls = 0;
  const auto expectFree = [&] {
    ++calls;
    EXPECT_TRUE(qel::InterprocessLock().acquire(scene.keys.size(), 0));
  };
  const auto download = scene.service->firstDownload;
  scene.service->firstDownload = [&](std::uint32_t high, std::uint32_t low, std::uint32_t size,
                                     ravel::downloadInfo& page) {
    expectFree();
    download(high, low, size, page);
  };
  const auto codes = scene.service->codes;
  scene.service->codes = [&](std::vector<ravel::CodeInfo>& all) {
    expectFree();
    codes(all);
  };
  ASSERT_TRUE(scene.refresh());
  EXPECT_GE(calls, 4);
  expectFree();
}

/// Other processes do not wait for a thread of this one.
TEST(SharedImage, AReaderThatIsHeldKeepsNobodyFromTheLock) {
  ImageScene scene;
  scene.server.publish(selfCheckingTable(1, 4));
  ASSERT_TRUE(scene.refresh());
  std::promise<void> held, release;
  std::thread holder([&] {
    const TolvarReader reader = scene.client.read();
    held.set_value();
    release.get_future().wait();
  });
  held.get_future().wait();
  const Table next = selfCheckingTable(2, 4);
  scene.access.gathered() = next.rows;
  std::thread publisher([&] { scene.access.totalWriteData2Shm(); });
  while (versionAt(scene.client, kFirstAddress) != 2) std::this_thread::yield();
  EXPECT_TRUE(qel::InterprocessLock().acquire(scene.keys.size(), 5000));
  EXPECT_EQ(digestOf(SegmentView(scene.keys.data0()).ranges()), digestOf(next.rows));
  EXPECT_EQ(digestOf(SegmentView(scene.keys.data1()).ranges()), digestOf(next.rows));
  release.set_value();
  holder.join();
  publisher.join();
  scene.expectBothHold(scene.access.cltMd5());
}

TEST(SharedImage, ASegmentThatAnotherProcessGrewIsAttachedAgainBeforeItIsWritten) {
  ImageScene scene;
  scene.server.publish(selfCheckingTable(1, 4));
  ASSERT_TRUE(scene.refresh());
  const int before = scene.access.shm(0).id();
  {
    Neighbour neighbour(scene);
    neighbour.publish(selfCheckingTable(2, 40));
  }
  EXPECT_NE(qel::ZU_Shm::idOf(scene.keys.data0()), before) << "the test needs a replaced segment";
  scene.server.publish(selfCheckingTable(3, 30));
  ASSERT_TRUE(scene.refresh());
  EXPECT_EQ(scene.access.shm(0).id(), qel::ZU_Shm::idOf(scene.keys.data0()));
  EXPECT_EQ(scene.access.shm(1).id(), qel::ZU_Shm::idOf(scene.keys.data1()));
  scene.expectBothHold(scene.access.cltMd5());
  EXPECT_EQ(versionAt(scene.client, kFirstAddress + 29 * 256), 3u);
}

TEST(SharedImage, RegionsThatAnotherProcessMovedInPlaceAreWalkedAgain) {
  // A first growth leaves slack, which the second one uses without replacing the segment.
  ImageScene scene;
  scene.server.publish(selfCheckingTable(1, 4));
  ASSERT_TRUE(scene.refresh());
  Neighbour neighbour(scene);
  for (std::size_t ranges = 8; ranges < 200; ranges += 16)
    neighbour.publish(selfCheckingTable(static_cast<std::uint32_t>(ranges), ranges));
  scene.server.publish(selfCheckingTable(3, 2));
  ASSERT_TRUE(scene.refresh());
  scene.expectBothHold(scene.access.cltMd5());
  neighbour.publish(selfCheckingTable(4, 50));
  scene.expectBothHold(neighbour.access.cltMd5());
}

TEST(SharedImage, ASegmentThatWasRemovedComesBackWithItsContent) {
  ImageScene scene;
  scene.server.publish(selfCheckingTable(1, 4));
  ASSERT_TRUE(scene.refresh());
  for (const key_t key : {scene.keys.data0(), scene.keys.data1()})
    ASSERT_EQ(shmctl(qel::ZU_Shm::idOf(key), IPC_RMID, nullptr), 0);
  scene.access.isCheckingCode() = true;
  ASSERT_TRUE(scene.finish());
  scene.expectBothHold(scene.access.cltMd5());
}

TEST(SharedImage, AnImageThatAKilledPublisherLeftUnfinishedDoesNotCostTheGoodOne) {
  ImageScene scene;
  scene.server.publish(selfCheckingTable(1, 4));
  ASSERT_TRUE(scene.refresh());
  const std::string digest = scene.access.cltMd5();
  const int good = scene.access.vectorIP() == &scene.access.ipVector(0) ? 0 : 1;
  // Killed while it wrote ranges into the segment that this client would take its next ones from.
  for (const int unfinished : {1 - good, good}) {
    MemoryHead head;
    scene.access.ReadMemoryHead(unfinished, &head);
    head.ip_usable = kMemoryStatusPending;
    scene.access.WriteMemoryHead(unfinished, head);
    scene.access.ipVector(unfinished).clear();
    scene.access.isCheckingCode() = true;
    ASSERT_TRUE(scene.finish());
    scene.expectBothHold(digest);
  }
}

}  // namespace
}  // namespace tolvar_test
