// Processes that are copied or stopped at any moment.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstring>
#include <filesystem>
#include <memory>
#include <thread>

#include "platform/interprocess_lock.h"
#include "tests/src/update/scene.h"
#include "tests/support/forked_child.h"

namespace tolvar_test {
namespace {

/// In a child: lookups of every form, then destruction. Answers 0 when all went well.
int useAndDestroy(TolvarAPI* client) {
  alarm(60);  // a deadlock ends as a failure
  ravel::IPInfo info;
  IPHumanMessage names;
  if (!client->getIPInfo(kFirstAddress, &info) || versionOf(kFirstAddress, info) == 0) return 1;
  if (!client->getIPInfoFromStr("1.0.0.1", &names)) return 2;
  if (names.m_oper != "v" + std::to_string(info.oper) + " oper" && !names.m_oper.empty()) return 3;
  client->getOperByID(1);
  client->status();
  delete client;
  return 0;
}

/// A client on an image, with a service that always has it download again and a clock that makes
/// the update thread do so without pause.
struct BusyClient : Scene {
  TableServer server{service, 20};
  ManualClock clock{true};
  std::unique_ptr<ClockedClient> client;

  BusyClient() {
    plantSmallSegments(keys, 64, 8);
    server.publish(selfCheckingTable(1, 50));
    {
      TolvarAPI first;
      EXPECT_TRUE(first.initialize(options()));
    }
    service->getConf = [](ravel::ClientConf& conf) { conf.statisOpen = true; };
    service->checkChange = [](const ravel::CheckReq&, ravel::CheckInfo& info) { info.isReset = 1; };
    client = std::make_unique<ClockedClient>(clock);
    EXPECT_TRUE(client->initialize(options()));
  }

  void awaitPublications(std::uint64_t count) const {
    const std::uint64_t target = client->status().publications + count;
    while (client->status().publications < target) std::this_thread::yield();
  }
};

TEST(Fork, AChildLooksUpAndDestroysWhateverTheParentWasAt) {
  BusyClient parent;
  for (int i = 0; i < 40; ++i) {
    if (i % 4 == 0) parent.awaitPublications(1);
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) _exit(useAndDestroy(parent.client.release()));
    EXPECT_TRUE(endsWell(child)) << "child " << i;
  }
  parent.awaitPublications(1);
}

/// What the update thread is changing when the process is copied cannot be caught at will, so it is
/// put there: every lock taken, and vectors whose memory is gone already.
TEST(Fork, AChildNeitherWaitsForLocksNorFreesWhatWasBeingChanged) {
  BusyClient parent;
  parent.client->terminate();
  tolvar::ClientTestAccess access(*parent.client);
  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    parent.client->lock();
    access.hasInitializedMutex().lock();
    access.internals().statusMutex.try_lock();
    access.internals().initializing.try_lock();
    std::memset(static_cast<void*>(&access.gathered()), 0x5a, sizeof access.gathered());
    std::memset(static_cast<void*>(&access.ipQueryVec()), 0x5a, sizeof access.ipQueryVec());
    std::memset(static_cast<void*>(&access.codeQueryMap(0)), 0x5a, sizeof access.codeQueryMap(0));
    std::memset(static_cast<void*>(&access.cltMd5()), 0x5a, sizeof access.cltMd5());
    _exit(useAndDestroy(parent.client.release()));
  }
  EXPECT_TRUE(endsWell(child));
}

TEST(Fork, AChildIsToldToMakeAnObjectOfItsOwnAndCan) {
  BusyClient parent;
  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    alarm(60);
    if (parent.client->initialize(parent.options())) _exit(1);
    ravel::IPInfo info;
    if (!parent.client->getIPInfo(kFirstAddress, &info)) _exit(2);
    _exit(0);
  }
  EXPECT_TRUE(endsWell(child));
}

TEST(Fork, AnObjectMadeBeforeAndInitializedInTheChildIsTheChilds) {
  Scene scene;
  plantSmallSegments(scene.keys, 64, 8);
  TableServer server(scene.service);
  server.publish(selfCheckingTable(1, 5));
  auto client = std::make_unique<TolvarAPI>();
  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    alarm(60);
    if (!client->initialize(scene.options())) _exit(1);
    _exit(useAndDestroy(client.release()) == 0 ? 0 : 2);
  }
  EXPECT_TRUE(endsWell(child));
}

TEST(Fork, AnObjectMadeBeforeAndInitializedInTheChildRollsItsLog) {
  Scene scene;
  plantSmallSegments(scene.keys, 64, 8);
  TableServer server(scene.service);
  server.publish(selfCheckingTable(1, 5));
  std::filesystem::create_directories(std::filesystem::path(scene.logFile()).parent_path());
  writeFile(scene.logFile(), "");
  std::filesystem::resize_file(scene.logFile(), 52428800);  // full, and takes no room
  auto client = std::make_unique<TolvarAPI>();
  EXPECT_TRUE(endsWellForked([&] {
    if (!client->initialize(scene.loggingOptions())) return 1;
    client.reset();
    return std::filesystem::exists(scene.directory.file("Tolvar/API/Tolvar.API1.log")) ? 0 : 2;
  }));
}

/// A publisher that is stopped keeps the lock. Others give the wait up, keep answering and their
/// downloads, and publish once it goes on.
TEST(Stopped, APublisherThatIsStoppedHoldsNobodyUpForLong) {
  StepScene scene;
  TableServer server(scene.service, 10);
  scene.access.internals().publisherLockMillis = 1;
  server.publish(selfCheckingTable(1, 20));
  ASSERT_TRUE(scene.refresh());

  const pid_t stopped = fork();
  ASSERT_GE(stopped, 0);
  if (stopped == 0) {
    alarm(60);
    qel::InterprocessLock lock;
    if (!lock.acquire(scene.keys.size(), 1000)) _exit(1);
    raise(SIGSTOP);
    lock.release();
    _exit(0);
  }
  int status = 0;
  ASSERT_EQ(waitpid(stopped, &status, WUNTRACED), stopped);
  ASSERT_TRUE(WIFSTOPPED(status));

  server.publish(selfCheckingTable(2, 20));
  scene.service->forgetCalls();
  EXPECT_FALSE(scene.refresh(20)) << "the lock is taken";
  ravel::IPInfo info;
  ASSERT_TRUE(scene.client.getIPInfo(kFirstAddress, &info));
  EXPECT_EQ(versionOf(kFirstAddress, info), 1u);
  EXPECT_EQ(scene.client.status().lastError.rfind("code tables: another process holds", 0), 0u);

  ASSERT_EQ(kill(stopped, SIGCONT), 0);
  EXPECT_TRUE(endsWell(stopped));
  ASSERT_TRUE(scene.finish());
  ASSERT_TRUE(scene.client.getIPInfo(kFirstAddress, &info));
  EXPECT_EQ(versionOf(kFirstAddress, info), 2u);
}

}  // namespace
}  // namespace tolvar_test
