// What a client says of failures, and that it says when they are over.
#include <gtest/gtest.h>

#include <cerrno>

#include "tests/src/update/scene.h"
#include "tests/support/system_calls_guard.h"

namespace tolvar_test {
namespace {

constexpr std::time_t kBegin = 1700000000;  // of a ManualClock

struct FailingScene : StepScene {
  TableServer server{service};
  FailingScene() { server.publish(selfCheckingTable(1, 20)); }

  /// The next change check comes when it is due, and is tried.
  void checkInTenMinutes() {
    clock.advance(600000);
    access.checkChange();
  }

  void expectFailing(const std::string& error, std::time_t at) const {
    const TolvarStatus status = client.status();
    EXPECT_TRUE(status.failing);
    EXPECT_EQ(status.lastError, error);
    EXPECT_EQ(status.lastErrorAt, at);
  }
  void expectOver(const std::string& error, std::time_t at) const {
    const TolvarStatus status = client.status();
    EXPECT_FALSE(status.failing);
    EXPECT_EQ(status.lastError, error);
    EXPECT_EQ(status.lastErrorAt, at);
  }
};

TEST(Failing, NothingHasFailedAtFirst) { FailingScene().expectOver("", 0); }

TEST(Failing, AChangeCheckIsOverWithTheNextThatIsAnswered) {
  FailingScene scene;
  ASSERT_TRUE(scene.refresh());
  scene.server.setDown(true);
  scene.checkInTenMinutes();
  scene.expectFailing("change check: the service is down", kBegin + 600);
  scene.checkInTenMinutes();
  scene.expectFailing("change check: the service is down", kBegin + 1200);
  scene.server.setDown(false);
  scene.clock.advance(599000);
  scene.access.checkChange();
  scene.expectFailing("change check: the service is down", kBegin + 1200);
  scene.clock.advance(1000);
  scene.access.checkChange();
  scene.expectOver("change check: the service is down", kBegin + 1200);
}

TEST(Failing, AnOverloadedServiceHasAnsweredTheCheck) {
  FailingScene scene;
  scene.server.setDown(true);
  scene.access.checkChange();
  scene.service->checkChange = [](const auto&, ravel::CheckInfo& info) { info.isNetFlow = 1; };
  scene.checkInTenMinutes();
  scene.expectOver("change check: the service is down", kBegin);
}

TEST(Failing, AConfigurationThatDoesNotComeIsAFailedCheck) {
  FailingScene scene;
  scene.service->checkChange = [](const auto&, ravel::CheckInfo& info) { info.updateConf = true; };
  scene.server.setDown(true);
  scene.access.checkChange();
  scene.expectFailing("change check: the service is down", kBegin);
  scene.server.setDown(false);
  scene.checkInTenMinutes();
  scene.expectOver("change check: the service is down", kBegin);
}

TEST(Failing, ADownloadGoesOnUntilItsTableIsPublished) {
  FailingScene scene;
  scene.access.checkChange();
  scene.server.setDown(true);
  scene.access.totalDownloadRequest();
  scene.expectFailing("download: the service is down", kBegin);
  scene.checkInTenMinutes();  // gives the download up, and asks nothing
  scene.server.setDown(false);
  scene.checkInTenMinutes();  // an answer, but the newer table is still to come
  scene.expectFailing("download: the service is down", kBegin);
  ASSERT_TRUE(scene.finish());
  scene.expectOver("download: the service is down", kBegin);
}

TEST(Failing, ADownloadIsOverWhenTheTableHeldIsTheServicesAgain) {
  FailingScene scene;
  ASSERT_TRUE(scene.refresh());
  const Table held = selfCheckingTable(1, 20);
  scene.server.publish(selfCheckingTable(2, 20));
  scene.checkInTenMinutes();
  scene.server.setDown(true);
  scene.access.totalDownloadRequest();
  scene.server.setDown(false);
  scene.server.publish(held);
  scene.checkInTenMinutes();
  scene.expectFailing("download: the service is down", kBegin + 600);
  scene.checkInTenMinutes();
  scene.expectOver("download: the service is down", kBegin + 600);
}

TEST(Failing, CodeTablesGoOnUntilTheyAreThereWhateverTheChecksSay) {
  FailingScene scene;
  scene.server.beforeCodes = [] { throw qel::ZU_Exception("no names"); };
  EXPECT_FALSE(scene.refresh(1));
  scene.expectFailing("code tables: no names", kBegin);
  scene.checkInTenMinutes();
  scene.checkInTenMinutes();  // the ranges are the service's
  scene.expectFailing("code tables: no names", kBegin);
  scene.server.beforeCodes = nullptr;
  scene.server.publish(selfCheckingTable(2, 20));
  scene.checkInTenMinutes();
  ASSERT_TRUE(scene.finish());
  scene.expectOver("code tables: no names", kBegin);
}

TEST(Failing, WhatGoesOnIsShownBeforeWhatIsOver) {
  FailingScene scene;
  scene.access.checkChange();
  scene.server.beforeCodes = [] { throw qel::ZU_Exception("no names"); };
  scene.access.checkCodeChangeRequest();
  scene.clock.advance(1000);
  scene.server.setDown(true);
  scene.access.totalDownloadRequest();
  scene.expectFailing("download: the service is down", kBegin + 1);
  scene.server.setDown(false);
  scene.access.totalDownloadRequest();
  // The last page asked for the names once more.
  scene.expectFailing("code tables: no names", kBegin + 1);
  scene.server.beforeCodes = nullptr;
  ASSERT_TRUE(scene.finish());
  scene.expectOver("code tables: no names", kBegin + 1);
}

TEST(Failing, TheLastFailureIsTheLastAlsoAfterTheWallClockWasSetBack) {
  FailingScene scene;
  scene.access.checkChange();
  scene.server.setDown(true);
  scene.access.totalDownloadRequest();
  scene.clock.stepWall(-3600000);
  scene.access.checkCodeChangeRequest();
  scene.expectFailing("code tables: the service is down", kBegin - 3600);
}

TEST(Failing, AStartWithoutSegmentsGoesOnUntilTheTablesAreShared) {
  LateScene scene;
  TableServer server(scene.service);
  server.publish(selfCheckingTable(1, 20));
  {
    SystemCallsGuard guard;
    guard.calls().shmget = [](key_t, std::size_t, int) {
      errno = ENOMEM;
      return -1;
    };
    scene.begin();
    scene.access.checkChange();
    scene.access.totalDownloadRequest();
    EXPECT_TRUE(scene.client.status().ipReady);
    EXPECT_TRUE(scene.client.status().failing) << "the table is there, but shared with nobody";
    EXPECT_EQ(scene.client.status().lastError.rfind("share memory: ", 0), 0u);
  }
  server.publish(selfCheckingTable(2, 20));
  ASSERT_TRUE(scene.refresh());
  EXPECT_FALSE(scene.client.status().failing);
}

TEST(Failing, AStartWithoutTheImagesLockGoesOnUntilTheTablesAreShared) {
  LateScene scene;
  TableServer server(scene.service);
  server.publish(selfCheckingTable(1, 20));
  scene.access.internals().starterLockMillis = 1;
  qel::InterprocessLock somebody;
  ASSERT_TRUE(somebody.acquire(scene.keys.size(), 0));
  scene.begin();
  EXPECT_EQ(scene.client.status().lastError, "share memory: another process holds its lock");
  somebody.release();
  scene.access.checkChange();
  scene.access.totalDownloadRequest();
  EXPECT_FALSE(scene.client.status().failing);
}

TEST(Failing, AnImageWithoutALockGoesOnUntilAPublicationHoldsIt) {
  LateScene scene;
  TableServer server(scene.service);
  server.publish(selfCheckingTable(1, 20));
  {
    SystemCallsGuard guard;
    guard.calls().semget = [](key_t, int, int) {
      errno = ENOSPC;
      return -1;
    };
    scene.begin();
    EXPECT_FALSE(scene.access.internals().unshared);
    EXPECT_EQ(scene.client.status().lastError.rfind("share memory: used without its lock: ", 0),
              0u);
    ASSERT_TRUE(scene.refresh());
    EXPECT_TRUE(scene.client.status().failing);
  }
  scene.access.isCheckingCode() = true;
  ASSERT_TRUE(scene.finish());
  EXPECT_FALSE(scene.client.status().failing);
}

TEST(Failing, AnInitializationIsOverWhenALaterOneStarts) {
  Scene scene;
  TableServer server(scene.service);
  server.publish(selfCheckingTable(1, 20));
  TolvarAPI client;
  TolvarAPIOptions options = scene.options();
  options.comm = nullptr;
  EXPECT_FALSE(client.initialize(options));
  EXPECT_TRUE(client.status().failing);
  EXPECT_EQ(client.status().lastError.rfind("initialize: ", 0), 0u);
  EXPECT_TRUE(client.initialize(scene.options()));
  EXPECT_FALSE(client.status().failing);
}

TEST(Failing, AConfigurationThatWasNotToBeHadAtTheStartIsOverWithTheFirstCheck) {
  Scene scene;
  TableServer server(scene.service);
  server.publish(selfCheckingTable(1, 20));
  scene.service->getConf = [](ravel::ClientConf&) { throw qel::ZU_Exception("not yet"); };
  TolvarAPI client;
  ASSERT_TRUE(client.initialize(scene.options()));
  EXPECT_FALSE(client.status().failing);
  EXPECT_EQ(client.status().lastError, "configuration: not yet");
}

TEST(Failing, ADownloadThatIsGivenUpAfterTenMinutesSaysSo) {
  FailingScene scene;
  scene.access.checkChange();
  scene.checkInTenMinutes();
  scene.expectFailing(
      "download: given up, because it was not complete after 600 seconds; the next change check "
      "begins anew",
      kBegin + 600);
  scene.output.take();
  EXPECT_EQ(textsStarting(scene.output.out, "download given up").size(), 1u);
  scene.checkInTenMinutes();
  ASSERT_TRUE(scene.finish());
  EXPECT_FALSE(scene.client.status().failing);
}

TEST(Failing, NamesThatCouldNotBeHadAreAskedForWithTheNextAnsweredCheck) {
  FailingScene scene;
  scene.server.beforeCodes = [] { throw qel::ZU_Exception("no names"); };
  EXPECT_FALSE(scene.refresh(1));
  scene.checkInTenMinutes();  // gives them up, and asks nothing
  EXPECT_FALSE(scene.access.checkCodeChangeRequest());
  scene.service->forgetCalls();
  scene.checkInTenMinutes();  // the ranges are the service's
  scene.access.checkCodeChangeRequest();
  EXPECT_FALSE(scene.access.checkCodeChangeRequest()) << "once a check";
  EXPECT_EQ(scene.callsStarting("totalDownloadCode").size(), 1u);
  scene.server.beforeCodes = nullptr;
  scene.checkInTenMinutes();
  scene.access.checkCodeChangeRequest();
  EXPECT_EQ(scene.client.getOperByID(1), "v1 oper");
  EXPECT_FALSE(scene.client.status().failing);
  scene.checkInTenMinutes();
  EXPECT_FALSE(scene.access.checkCodeChangeRequest());
}

TEST(Failing, AServiceWithoutServersFailsEveryStepThatSelectsOne) {
  FailingScene scene;
  scene.service->noServers = true;
  scene.access.checkChange();
  scene.expectFailing("change check: the communicator has no server of the service", kBegin);
  scene.service->noServers = false;
  scene.checkInTenMinutes();
  scene.service->noServers = true;
  scene.access.totalDownloadRequest();
  scene.expectFailing("download: the communicator has no server of the service", kBegin + 600);
  scene.access.cltMd5() = "another than 0";
  scene.access.totalDownloadRequest();
  scene.expectFailing("download: the communicator has no server of the service", kBegin + 600);
  scene.access.cltMd5() = "0";
  scene.service->noServers = false;
  ASSERT_TRUE(scene.finish());
  EXPECT_FALSE(scene.client.status().failing);
}

}  // namespace
}  // namespace tolvar_test
