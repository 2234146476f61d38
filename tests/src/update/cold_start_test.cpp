#include <gtest/gtest.h>
#include <sys/shm.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <fstream>
#include <sstream>
#include <thread>

#include "tests/src/update/scene.h"
#include "tests/support/system_calls_guard.h"

namespace tolvar_test {
namespace {

constexpr std::uint32_t kReady = 1;

/// Segments of this host that this process has made.
std::size_t ownSegments() {
  std::ifstream in("/proc/sysvipc/shm");
  std::string line;
  std::getline(in, line);
  std::size_t count = 0;
  while (std::getline(in, line)) {
    std::istringstream fields(line);
    long key = 0, id = 0, perms = 0, size = 0, creator = 0;
    fields >> key >> id >> perms >> size >> creator;
    if (creator == getpid()) ++count;
  }
  return count;
}

/// The calls with the key of the server choice, which is the time, replaced.
std::vector<std::string> withoutTime(std::vector<std::string> calls) {
  for (std::string& call : calls)
    if (call.rfind("selectServer", 0) == 0) call = call.substr(0, call.find(' ')) + " TIME";
  return calls;
}

/// True when a process that starts now would take this segment, and it holds no whole table.
bool offersPartOfATable(key_t key, std::size_t ranges) {
  const SegmentView segment(key);
  if (!segment.exists()) return false;
  if (segment.ipStatus() != kReady || segment.codeStatus() != kReady) return false;
  return segment.nodes(0) != ranges || segment.nodes(1) == 0;
}

TEST(ColdStart, MakesTheExpectedRequestsAndLeavesTwoEqualReadySegments) {
  Scene scene;
  TableServer server(scene.service, 10);
  server.publish(selfCheckingTable(1, 25));
  {
    TolvarAPI client;
    ASSERT_TRUE(client.initialize(scene.options()));
    const TolvarStatus status = client.status();
    EXPECT_TRUE(status.ipReady);
    EXPECT_TRUE(status.codesReady);
    EXPECT_EQ(status.digest, server.digest());
    EXPECT_EQ(status.ranges, 25u);
    EXPECT_EQ(status.codeEntries, 3u);
    ravel::IPInfo info;
    ASSERT_TRUE(client.getIPInfo(kFirstAddress + 24 * 256 + 127, &info));
    EXPECT_EQ(versionOf(kFirstAddress + 24 * 256, info), 1u);
    IPHumanMessage message;
    ASSERT_TRUE(client.getIPInfo(kFirstAddress, &message));
    EXPECT_EQ(message.m_oper, "v1 oper");
  }
  EXPECT_EQ(withoutTime(scene.service->calls()),
            (std::vector<std::string>{
                "getConf", "selectServer TIME", "checkChangeAdv md5=0 api=20120704 conf=1",
                "selectServer(F) TIME", "FirstTotalDownloadIPInfo 0 0 50000", "totalDownloadCode",
                "selectServer(F) TIME", "FirstTotalDownloadIPInfo 1001 10 50000",
                "selectServer(F) TIME", "FirstTotalDownloadIPInfo 1001 20 50000"}));
  const SegmentView segment0(scene.keys.data0()), segment1(scene.keys.data1());
  for (const SegmentView* segment : {&segment0, &segment1}) {
    EXPECT_EQ(segment->ipStatus(), kReady);
    EXPECT_EQ(segment->codeStatus(), kReady);
    EXPECT_EQ(segment->bytes(), 73695648u);
    EXPECT_EQ(digestOf(segment->ranges()), server.digest());
  }
  EXPECT_TRUE(segment0.content() == segment1.content());
  EXPECT_EQ(readFile("downloadPos.dat"), std::string("\x19\0\0\0\xe9\x03\0\0\0", 9));
}

TEST(ColdStart, AfterTheFirstTableDownloadsGoToTheMainObject) {
  StepScene scene;
  TableServer server(scene.service, 10);
  server.publish(selfCheckingTable(1, 25));
  ASSERT_TRUE(scene.refresh());
  scene.service->forgetCalls();
  server.publish(selfCheckingTable(2, 15));
  const std::string old = scene.access.cltMd5();
  scene.clock.advance(600000);
  ASSERT_TRUE(scene.refresh());
  EXPECT_EQ(withoutTime(scene.service->calls()),
            (std::vector<std::string>{
                "selectServer TIME", "checkChangeAdv md5=" + old + " api=20120704 conf=1",
                "selectServer TIME", "totalDownloadIPInfo 0 0 50000", "totalDownloadCode",
                "selectServer TIME", "totalDownloadIPInfo 1002 10 50000"}));
  EXPECT_EQ(scene.access.cltMd5(), server.digest());
}

TEST(ColdStart, TableThatDidNotChangeIsNotDownloadedAgain) {
  StepScene scene;
  TableServer server(scene.service);
  server.publish(selfCheckingTable(1, 25));
  ASSERT_TRUE(scene.refresh());
  scene.service->forgetCalls();
  scene.clock.advance(600000);
  ASSERT_TRUE(scene.refresh());
  EXPECT_EQ(scene.service->calls().size(), 2u);
}

TEST(ColdStart, NoSegmentOffersPartOfATableBetweenTheSteps) {
  static std::vector<key_t> keys;
  static int looks;
  static int offers;
  looks = offers = 0;
  StepScene scene(4);
  keys = {scene.keys.data0(), scene.keys.data1()};
  TableServer server(scene.service, 10);
  server.publish(selfCheckingTable(1, 25));
  static constexpr auto look = [] {
    ++looks;
    for (const key_t key : keys) offers += offersPartOfATable(key, 25) ? 1 : 0;
  };
  server.beforePage = server.beforeCodes = look;
  SystemCallsGuard guard;
  guard.calls().shmget = [](key_t key, std::size_t size, int flags) {
    look();
    return shmget(key, size, flags);
  };
  guard.calls().shmctl = [](int id, int command, shmid_ds* data) {
    look();
    return shmctl(id, command, data);
  };
  ASSERT_TRUE(scene.refresh());
  EXPECT_GT(looks, 20);
  EXPECT_EQ(offers, 0);
}

TEST(ColdStart, NoSegmentOffersPartOfATableWhileSomebodyWatches) {
  Scene scene;
  plantSmallSegments(scene.keys, 2000, 8);
  TableServer server(scene.service, 500);
  server.publish(selfCheckingTable(1, 2000));
  std::atomic<bool> stop{false};
  int offers = 0;
  std::atomic<long> looks{0};
  std::thread watcher([&] {
    while (!stop) {
      for (const key_t key : {scene.keys.data0(), scene.keys.data1()})
        offers += offersPartOfATable(key, 2000) ? 1 : 0;
      ++looks;
    }
  });
  while (looks == 0) std::this_thread::yield();
  {
    TolvarAPI client;
    EXPECT_TRUE(client.initialize(scene.options()));
  }
  stop = true;
  watcher.join();
  EXPECT_EQ(offers, 0);
}

TEST(ColdStart, SegmentIsPendingBeforeItsFirstByteChanges) {
  static std::vector<std::uint32_t> statuses;
  statuses.clear();
  StepScene scene(4);
  TableServer server(scene.service);
  server.publish(selfCheckingTable(1, 3));
  ASSERT_TRUE(scene.refresh());
  server.publish(selfCheckingTable(2, 200));
  SystemCallsGuard guard;
  // Growing a segment is the first thing that changes it, and removes it to begin with.
  guard.calls().shmctl = [](int id, int command, shmid_ds* data) {
    if (command == IPC_RMID) {
      void* at = shmat(id, nullptr, SHM_RDONLY);
      std::uint32_t status = 0;
      std::memcpy(&status, at, sizeof status);
      statuses.push_back(status);
      shmdt(at);
    }
    return shmctl(id, command, data);
  };
  ASSERT_TRUE(scene.refresh());
  EXPECT_EQ(statuses, (std::vector<std::uint32_t>{2, 2}));
}

TEST(ColdStart, TenInARowLeaveTheSegmentsAsBefore) {
  const std::size_t before = ownSegments();
  for (std::uint32_t i = 1; i <= 10; ++i) {
    Scene scene;
    TableServer server(scene.service);
    server.publish(selfCheckingTable(i, 5));
    {
      TolvarAPI client;
      ASSERT_TRUE(client.initialize(scene.options()));
    }
    EXPECT_EQ(ownSegments(), before + 3) << "two with tables, one with their size";
    scene.keys.removeSegments();
    ASSERT_EQ(ownSegments(), before) << "nothing stays attached";
  }
}

}  // namespace
}  // namespace tolvar_test
