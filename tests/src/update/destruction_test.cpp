#include <gtest/gtest.h>

#include <future>
#include <thread>

#include "tests/src/update/scene.h"

namespace tolvar_test {
namespace {

/// Holds calls of the service until the client is being destroyed.
class HeldCall {
 public:
  /// For the service's hook: tells the test that a call has come and keeps it.
  void hold() {
    if (!_first.exchange(false)) return;
    _reached.set_value();
    _release.get_future().wait();
  }
  void awaitCall() { _reached.get_future().wait(); }
  void release() { _release.set_value(); }

 private:
  std::atomic<bool> _first{true};
  std::promise<void> _reached, _release;
};

/// Destroys a client while `call` is held, and lets the call go once the stop was asked for.
void destroyWhileHeld(std::unique_ptr<TolvarAPI> client, HeldCall& call) {
  call.awaitCall();
  tolvar::ClientTestAccess access(*client);
  std::atomic<bool>& stopAsked = access.terminated();
  std::thread releaser([&] {
    while (!stopAsked) std::this_thread::yield();
    call.release();
  });
  client.reset();
  releaser.join();
}

/// A host with an image of version 1 and a service that has version 2, so that a client is ready at
/// once and then downloads.
struct HostWithOldImage : Scene {
  TableServer server{service, 5};

  HostWithOldImage() {
    plantSmallSegments(keys, 64, 8);
    server.publish(selfCheckingTable(1, 20));
    {
      TolvarAPI first;
      EXPECT_TRUE(first.initialize(options()));
    }
    server.publish(selfCheckingTable(2, 20));
    service->forgetCalls();
  }
};

TEST(Destruction, BeforeInitialize) { TolvarAPI client; }

TEST(Destruction, AfterTerminateBeforeInitialize) {
  TolvarAPI client;
  client.terminate();
}

TEST(Destruction, AfterStartWithoutInitialize) {
  Output output;
  ManualClock clock;
  ClockedClient client(clock);
  client.terminate();
  client.start();
}

TEST(Destruction, AfterEveryFailedStepOfInitialize) {
  Scene scene;
  TableServer server(scene.service);
  const auto destroyAfter = [&](auto spoil) {
    TolvarAPIOptions options = scene.loggingOptions();
    spoil(options);
    TolvarAPI client;
    EXPECT_FALSE(client.initialize(options));
  };
  destroyAfter([](TolvarAPIOptions& o) { std::swap(o.ip_servant, o.fast_ip_servant); });
  destroyAfter([](TolvarAPIOptions& o) { o.comm = nullptr; });
  destroyAfter([](TolvarAPIOptions& o) { o.shm_key_2 = o.shm_key_1; });
}

TEST(Destruction, AfterATimeOut) {
  Scene scene;
  plantSmallSegments(scene.keys, 8, 8);
  TableServer server(scene.service);
  server.setDown(true);
  ManualClock clock(true);
  ClockedClient client(clock);
  EXPECT_FALSE(client.initialize(scene.loggingOptions()));
}

TEST(Destruction, WhileIdle) {
  Scene scene;
  plantSmallSegments(scene.keys, 8, 8);
  TableServer server(scene.service);
  server.publish(selfCheckingTable(1, 3));
  ManualClock clock;
  const std::int64_t begin = clock.steadyMillis();
  {
    ClockedClient client(clock);
    ASSERT_TRUE(client.initialize(scene.options()));
    clock.awaitWaiters(2);  // the update thread and the reporter
  }
  EXPECT_EQ(clock.steadyMillis(), begin) << "nothing had to be waited for";
}

TEST(Destruction, RightAfterInitialize) {
  for (int i = 0; i < 20; ++i) {
    Scene scene;
    plantSmallSegments(scene.keys, 8, 8);
    TableServer server(scene.service);
    server.publish(selfCheckingTable(1, 3));
    TolvarAPI client;
    ASSERT_TRUE(client.initialize(scene.loggingOptions()));
  }
}

TEST(Destruction, DuringAPageLetsTheCallEndAndMakesNoOther) {
  HostWithOldImage host;
  HeldCall call;
  host.server.beforePage = [&] { call.hold(); };
  auto client = std::make_unique<TolvarAPI>();
  ASSERT_TRUE(client->initialize(host.options()));
  destroyWhileHeld(std::move(client), call);
  EXPECT_EQ(host.callsStarting("totalDownloadIPInfo").size(), 1u);
  // The image is the one that was there, whole but for the codes, which the same pass refreshes.
  EXPECT_EQ(digestOf(SegmentView(host.keys.data0()).ranges()),
            digestOf(selfCheckingTable(1, 20).rows));
  EXPECT_EQ(SegmentView(host.keys.data0()).ipStatus(), 1u);
}

TEST(Destruction, DuringTheCodeTablesLetsTheCallEnd) {
  HostWithOldImage host;
  HeldCall call;
  host.server.beforeCodes = [&] { call.hold(); };
  auto client = std::make_unique<TolvarAPI>();
  ASSERT_TRUE(client->initialize(host.options()));
  destroyWhileHeld(std::move(client), call);
  EXPECT_EQ(host.callsStarting("totalDownloadCode").size(), 1u);
}

TEST(Destruction, DuringTheChangeCheckLetsTheCallEnd) {
  HostWithOldImage host;
  HeldCall call;
  host.service->checkChange = [&](const auto&, const auto&) { call.hold(); };
  auto client = std::make_unique<TolvarAPI>();
  ASSERT_TRUE(client->initialize(host.options()));
  destroyWhileHeld(std::move(client), call);
  EXPECT_EQ(host.callsStarting("totalDownload").size(), 0u);
}

TEST(Destruction, CancelsACallThatWouldNotEndByItself) {
  HostWithOldImage host;
  std::promise<void> reached, cancelled;
  std::atomic<int> cancels{0};
  auto ended = cancelled.get_future().share();
  std::atomic<int> pages{0};
  host.server.beforePage = [&] {
    if (++pages == 1) reached.set_value();
    ended.wait();
    throw qel::ZU_Exception("cancelled");
  };
  host.service->cancel = [&] {
    if (++cancels == 1) cancelled.set_value();
  };
  auto client = std::make_unique<TolvarAPI>();
  ASSERT_TRUE(client->initialize(host.options()));
  reached.get_future().wait();
  EXPECT_EQ(cancels, 0) << "a call of a client in use is left alone";
  client.reset();
  EXPECT_GE(cancels, 1);
  EXPECT_EQ(host.callsStarting("totalDownloadIPInfo").size(), 1u);
}

TEST(Destruction, OfADownloadGivenUpLeavesAnImageForTheNextStart) {
  HostWithOldImage host;
  {
    HeldCall call;
    host.server.beforePage = [&] { call.hold(); };
    auto client = std::make_unique<TolvarAPI>();
    ASSERT_TRUE(client->initialize(host.options()));
    destroyWhileHeld(std::move(client), call);
    host.server.beforePage = nullptr;
  }
  host.server.setDown(true);
  TolvarAPI next;
  ASSERT_TRUE(next.initialize(host.options()));
  ravel::IPInfo info;
  ASSERT_TRUE(next.getIPInfo(kFirstAddress, &info));
  EXPECT_EQ(versionOf(kFirstAddress, info), 1u);
}

TEST(Destruction, GoesOnWhenCallsCannotBeCancelled) {
  HostWithOldImage host;
  HeldCall call;
  host.server.beforePage = [&] { call.hold(); };
  host.service->cancel = [] { throw 1; };
  auto client = std::make_unique<TolvarAPI>();
  ASSERT_TRUE(client->initialize(host.options()));
  destroyWhileHeld(std::move(client), call);
  EXPECT_EQ(host.callsStarting("totalDownloadIPInfo").size(), 1u);
}

}  // namespace
}  // namespace tolvar_test
