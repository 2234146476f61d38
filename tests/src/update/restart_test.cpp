#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <memory>
#include <thread>

#include "platform/interprocess_lock.h"
#include "tests/src/update/scene.h"
#include "tests/support/raw_image.h"

namespace tolvar_test {
namespace {

/// A host on which a client has run before: an image of version 1 is in place.
struct HostWithImage : Scene {
  TableServer server{service};

  HostWithImage() {
    plantSmallSegments(keys, 64, 8);
    server.publish(selfCheckingTable(1, 20));
    TolvarAPI first;
    EXPECT_TRUE(first.initialize(options()));
    service->forgetCalls();
  }

  std::size_t downloads() const {
    return callsStarting("totalDownload").size() + callsStarting("FirstTotalDownload").size();
  }
};

void expectAnswersOf(std::uint32_t version, TolvarAPI& client) {
  ravel::IPInfo info;
  ASSERT_TRUE(client.getIPInfo(kFirstAddress + 19 * 256 + 5, &info));
  EXPECT_EQ(versionOf(kFirstAddress + 19 * 256, info), version);
  IPHumanMessage message;
  ASSERT_TRUE(client.getIPInfoFromStr("1.0.0.1", &message));
  EXPECT_EQ(message.m_oper, "v" + std::to_string(version) + " oper");
  EXPECT_EQ(message.m_country, "v" + std::to_string(version) + " country");
}

TEST(Restart, WithAnImageMakesNoDownload) {
  HostWithImage host;
  std::promise<std::string> checked;
  std::atomic<int> checks{0};
  host.service->checkChange = [&](const ravel::CheckReq& req, ravel::CheckInfo& info) {
    info.isReset = req.contentMd5 == host.server.digest() ? 0 : 1;
    if (++checks == 1) checked.set_value(req.contentMd5);
  };
  {
    TolvarAPI client;
    ASSERT_TRUE(client.initialize(host.options()));
    expectAnswersOf(1, client);
    EXPECT_EQ(checked.get_future().get(), host.server.digest());
  }
  EXPECT_EQ(host.downloads(), 0u);
  EXPECT_EQ(checks, 1);
  host.output.take();
  EXPECT_EQ(textsStarting(host.output.out, "choose a ready share memory: ").size(), 1u);
}

TEST(Restart, WithAnImageAndTheServiceDownStartsAndAnswers) {
  HostWithImage host;
  host.server.setDown(true);
  TolvarAPI client;
  ASSERT_TRUE(client.initialize(host.options()));
  expectAnswersOf(1, client);
  const TolvarStatus status = client.status();
  EXPECT_EQ(status.digest, host.server.digest());
  EXPECT_EQ(status.imageDigest, host.server.digest());
  EXPECT_EQ(status.codePublications, 0u);
  EXPECT_EQ(status.ranges, 20u);
  EXPECT_EQ(status.codeEntries, 3u);
}

TEST(Restart, WithAnOldImageAnswersFromItUntilTheNewTableIsThere) {
  HostWithImage host;
  std::promise<void> asked, release;
  auto released = release.get_future().share();
  std::atomic<int> pages{0};
  host.server.beforePage = [&] {
    if (++pages == 1) asked.set_value();
    released.wait();
  };
  host.server.publish(selfCheckingTable(2, 30));
  std::promise<void> replaced;
  ManualClock clock;
  ClockedClient client(clock);
  ASSERT_TRUE(client.initialize(host.options()));
  asked.get_future().wait();
  ravel::IPInfo info;
  ASSERT_TRUE(client.getIPInfo(kFirstAddress, &info));
  EXPECT_EQ(versionOf(kFirstAddress, info), 1u);
  release.set_value();
  while (client.status().digest != host.server.digest()) std::this_thread::yield();
  EXPECT_NE(client.status().imageDigest, host.server.digest());
  ASSERT_TRUE(client.getIPInfo(kFirstAddress + 29 * 256, &info));
  EXPECT_EQ(versionOf(kFirstAddress + 29 * 256, info), 2u);
  EXPECT_EQ(host.callsStarting("FirstTotalDownload").size(), 0u);
  EXPECT_EQ(host.callsStarting("totalDownloadIPInfo").size(), 1u);
}

TEST(Restart, AfterAnImageOnKeysWithoutOneTheTablesAreNotFromAnImage) {
  HostWithImage host;
  const ShmKeys others;
  plantSmallSegments(others, 64, 8);
  TolvarAPI client;  // ends before its segments are removed
  ASSERT_TRUE(client.initialize(host.options()));
  EXPECT_TRUE(client.status().fromImage);
  TolvarAPIOptions options = host.options();
  options.shm_key_1 = others.data0();
  options.shm_key_2 = others.data1();
  options.shm_key_3 = others.size();
  ASSERT_TRUE(client.initialize(options));
  EXPECT_FALSE(client.status().fromImage);
  EXPECT_EQ(client.status().imageDigest, "");
  expectAnswersOf(1, client);
}

TEST(Restart, TwoClientsOfOneProcessShareTheImage) {
  HostWithImage host;
  TolvarAPI one, two;
  ASSERT_TRUE(one.initialize(host.options()));
  ASSERT_TRUE(two.initialize(host.options()));
  expectAnswersOf(1, one);
  expectAnswersOf(1, two);
  EXPECT_EQ(host.downloads(), 0u);
}

TEST(Restart, ClientThatStaysKeepsAnsweringWhenTheOtherGoes) {
  HostWithImage host;
  TolvarAPI stays;
  ASSERT_TRUE(stays.initialize(host.options()));
  {
    TolvarAPI goes;
    ASSERT_TRUE(goes.initialize(host.options()));
  }
  host.keys.removeSegments();
  expectAnswersOf(1, stays);
}

TEST(SecondInitialize, AfterSuccessStartsAgainFromTheImage) {
  HostWithImage host;
  TolvarAPI client;
  ASSERT_TRUE(client.initialize(host.options()));
  ASSERT_TRUE(client.initialize(host.options()));
  ASSERT_TRUE(client.initialize(host.options()));
  expectAnswersOf(1, client);
  EXPECT_EQ(host.downloads(), 0u);
  EXPECT_EQ(host.callsStarting("getConf").size(), 3u);
  EXPECT_TRUE(client.isAlive());
}

TEST(SecondInitialize, AfterSuccessOnOtherKeysDownloadsThere) {
  HostWithImage host;
  ShmKeys others;
  plantSmallSegments(others, 64, 8);
  TolvarAPIOptions options = host.options();
  options.shm_key_1 = others.data0();
  options.shm_key_2 = others.data1();
  options.shm_key_3 = others.size();
  {
    TolvarAPI client;
    ASSERT_TRUE(client.initialize(host.options()));
    ASSERT_TRUE(client.initialize(options));
    expectAnswersOf(1, client);
  }
  EXPECT_EQ(host.callsStarting("FirstTotalDownload").size(), 1u) << "the digest began anew";
  EXPECT_EQ(digestOf(SegmentView(others.data0()).ranges()), host.server.digest());
}

TEST(SecondInitialize, WithTheLogFileGoesOnInTheSameFile) {
  HostWithImage host;
  {
    TolvarAPI client;
    ASSERT_TRUE(client.initialize(host.loggingOptions()));
    ASSERT_TRUE(client.initialize(host.loggingOptions()));
  }
  const OutputLines lines = parseLines(readFile(host.logFile()));
  EXPECT_EQ(textsStarting(lines, "TolvarAPI initialize finish, m_has_initialized=3").size(), 2u);
}

TEST(SecondInitialize, AfterATimeOutSucceedsWhenTheServiceIsBack) {
  Scene scene;
  plantSmallSegments(scene.keys, 64, 8);
  TableServer server(scene.service);
  server.publish(selfCheckingTable(1, 20));
  server.setDown(true);
  ManualClock clock(true);
  ClockedClient client(clock);
  ASSERT_FALSE(client.initialize(scene.options()));
  EXPECT_FALSE(client.isAlive());
  server.setDown(false);
  // On this clock 30 seconds are over in no time, so the service may win only later.
  bool ready = false;
  for (int i = 0; i < 1000 && !ready; ++i) ready = client.initialize(scene.options());
  ASSERT_TRUE(ready);
  expectAnswersOf(1, client);
}

TEST(SecondInitialize, AfterSwappedNamesSucceeds) {
  HostWithImage host;
  TolvarAPIOptions swapped = host.options();
  std::swap(swapped.ip_servant, swapped.fast_ip_servant);
  TolvarAPI client;
  EXPECT_FALSE(client.initialize(swapped));
  EXPECT_TRUE(client.initialize(host.options()));
  expectAnswersOf(1, client);
}

TEST(SecondInitialize, AfterSuccessThatFailsKeepsTheOldAnswers) {
  HostWithImage host;
  TolvarAPIOptions bad = host.options();
  bad.shm_key_1 = 0;
  TolvarAPI client;
  ASSERT_TRUE(client.initialize(host.options()));
  EXPECT_FALSE(client.initialize(bad));
  expectAnswersOf(1, client);
}

TEST(SecondInitialize, DoesNotDisturbLookups) {
  HostWithImage host;
  TolvarAPI client;
  ASSERT_TRUE(client.initialize(host.options()));
  std::atomic<bool> stop{false};
  std::atomic<long> wrong{0}, right{0};
  std::thread reader([&] {
    ravel::IPInfo info;
    IPHumanMessage message;
    while (!stop) {
      const bool found = client.getIPInfo(kFirstAddress, &info);
      if (!found || versionOf(kFirstAddress, info) != 1) ++wrong;
      if (!client.getIPInfo(kFirstAddress, &message) || message.m_oper != "v1 oper") ++wrong;
      ++right;
    }
  });
  for (int i = 0; i < 20 || right < 100; ++i) EXPECT_TRUE(client.initialize(host.options()));
  stop = true;
  reader.join();
  EXPECT_EQ(wrong, 0);
}

TEST(SecondInitialize, OnAnotherThreadWaitsForTheFirst) {
  HostWithImage host;
  TolvarAPI client;
  std::atomic<int> ready{0};
  std::thread threads[3];
  for (std::thread& thread : threads) {
    thread = std::thread([&] {
      for (int i = 0; i < 5; ++i) ready += client.initialize(host.options()) ? 1 : 0;
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(ready, 15);
  expectAnswersOf(1, client);
}

/// A host that is told to end while it starts destroys the client from another thread.
TEST(Destruction, DuringAStartOnAnotherThreadEndsTheStart) {
  Scene scene;
  plantSmallSegments(scene.keys, 8, 8);
  TableServer server(scene.service);
  server.setDown(true);  // the start would wait for 30 seconds
  std::promise<void> asked;
  std::atomic<bool> first{true};
  const auto check = scene.service->checkChange;
  scene.service->checkChange = [&](const ravel::CheckReq& req, ravel::CheckInfo& info) {
    if (first.exchange(false)) asked.set_value();
    check(req, info);
  };
  auto client = std::make_unique<TolvarAPI>();
  const auto begin = std::chrono::steady_clock::now();
  auto start = std::async(std::launch::async, [api = client.get(), options = scene.options()] {
    return api->initialize(options);
  });
  asked.get_future().wait();
  client.reset();
  EXPECT_FALSE(start.get());
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(25));
}

/// A start that still waits for its turn at the shared memory must end, too.
TEST(Destruction, DuringTheWaitForTheLockEndsTheStart) {
  Scene scene;
  plantSmallSegments(scene.keys, 8, 8);
  TableServer server(scene.service);
  qel::InterprocessLock somebody;
  ASSERT_TRUE(somebody.acquire(scene.keys.size(), 0));
  std::promise<void> asked;
  scene.service->getConf = [&](ravel::ClientConf&) { asked.set_value(); };
  auto client = std::make_unique<TolvarAPI>();
  tolvar::ClientTestAccess(*client).internals().starterLockMillis = 3600 * 1000;
  auto start = std::async(std::launch::async, [api = client.get(), options = scene.options()] {
    return api->initialize(options);
  });
  asked.get_future().wait();
  client.reset();
  EXPECT_FALSE(start.get());
}

/// A host that does not look at what `initialize` answered. The client is there for it all the
/// same, and touches no segment that it was not given.
struct HeedlessHost : Scene {
  TableServer server{service};
  TolvarAPI client;

  HeedlessHost() { server.publish(selfCheckingTable(1, 20)); }

  void startAfterFailing(const TolvarAPIOptions& options) {
    ASSERT_FALSE(client.initialize(options));
    client.start();
    while (client.status().publications == 0) std::this_thread::yield();
    expectAnswersOf(1, client);
  }
};

TEST(StartAfterAFailedInitialize, WithoutKeysAnswersFromItsOwnDownload) {
  HeedlessHost host;
  TolvarAPIOptions options = host.options();
  options.shm_key_1 = 0;
  host.startAfterFailing(options);
}

TEST(StartAfterAFailedInitialize, LeavesSomebodyElsesSegmentAlone) {
  HeedlessHost host;
  RawSegment::create(host.keys.data0(), 4096);
  RawSegment foreign(host.keys.data0());
  const std::string content(4096, 'x');
  foreign.write(0, content);
  host.startAfterFailing(host.options());
  EXPECT_EQ(RawSegment::idBehind(host.keys.data0()), foreign.id());
  EXPECT_TRUE(foreign.allBytes() == content);
  EXPECT_FALSE(RawSegment::exists(host.keys.data1()));
}

TEST(StartAfterAFailedInitialize, WithoutTheFastProxyHasNobodyToAsk) {
  struct HalfRefusing : FakeCommunicator {
    using FakeCommunicator::FakeCommunicator;
    void stringToProxy(const std::string& name, ravel::TolvarPrx& proxy) override {
      FakeCommunicator::stringToProxy(name, proxy);
    }
    void stringToProxy(const std::string&, ravel::FTolvarPrx&) override { throw 1; }
  };
  Scene scene;
  TableServer server(scene.service);
  HalfRefusing communicator(scene.service);
  TolvarAPIOptions options = scene.options();
  options.comm = &communicator;
  TolvarAPI client;
  ASSERT_FALSE(client.initialize(options));
  client.start();
  while (client.status().lastError.rfind("change check: no service", 0) != 0)
    std::this_thread::yield();
  EXPECT_TRUE(scene.service->calls().empty());
}

/// A start that is still at its first call of the service, too.
TEST(Destruction, DuringTheCallForTheConfigurationCancelsIt) {
  Scene scene;
  plantSmallSegments(scene.keys, 8, 8);
  std::promise<void> asked, cancelled;
  auto ended = cancelled.get_future().share();
  std::atomic<bool> first{true};
  scene.service->getConf = [&](ravel::ClientConf&) {
    asked.set_value();
    ended.wait();
    throw qel::ZU_Exception("cancelled");
  };
  scene.service->cancel = [&] {
    if (first.exchange(false)) cancelled.set_value();
  };
  auto client = std::make_unique<TolvarAPI>();
  auto start = std::async(std::launch::async, [api = client.get(), options = scene.options()] {
    return api->initialize(options);
  });
  asked.get_future().wait();
  client.reset();
  EXPECT_FALSE(start.get());
}

}  // namespace
}  // namespace tolvar_test
