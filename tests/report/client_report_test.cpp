#include "report/client_report.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "tests/report/service_ledger.h"
#include "tests/support/manual_clock.h"
#include "tests/support/system_calls_guard.h"

namespace {

using namespace tolvar_test;
using ravel::ECity;
using ravel::ECountry;

constexpr int kShortStop = 400;

std::int64_t millisTaken(const std::function<void()>& action) {
  const auto begin = std::chrono::steady_clock::now();
  action();
  return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() -
                                                               begin)
      .count();
}

class ClientReportTest : public testing::Test {
 protected:
  std::unique_ptr<ClientReport> started(int stopMillis = ClientReport::kStopMillis) {
    auto report = std::make_unique<ClientReport>(clock, stopMillis);
    report->setTolvarPrx(ledger.proxy());
    report->start();
    clock.awaitWaiters(1);
    return report;
  }

  ServiceLedger ledger;
  ManualClock clock;
};

TEST_F(ClientReportTest, HitsOfManyThreadsArriveExactly) {
  auto report = started();
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&report] {
      for (int i = 0; i < 10000; ++i) {
        report->report(ECountry, "Finland");
        report->report(ECity, i % 2 == 0 ? "Turku" : "Oulu");
      }
    });
  }
  for (int i = 0; i < 5; ++i) {
    clock.advance(ClientReport::kIntervalMillis);
    clock.awaitWaiters(1);
  }
  for (auto& thread : threads) thread.join();
  report->set_destructor_wait(true);
  report.reset();
  EXPECT_EQ(ledger.count(ECountry, "Finland"), 40000u);
  EXPECT_EQ(ledger.count(ECity, "Turku"), 20000u);
  EXPECT_EQ(ledger.count(ECity, "Oulu"), 20000u);
  EXPECT_EQ(ledger.droppedHits(), 0u);
}

TEST_F(ClientReportTest, DestructionDeliversWhatIsLeftWhenToldToWait) {
  auto report = started();
  report->set_destructor_wait(true);
  report->report(ECity, "Turku");
  report->reportSimpleLog("line", 10);
  report.reset();
  EXPECT_EQ(ledger.count(ECity, "Turku"), 1u);
  EXPECT_EQ(ledger.lines(), std::vector<std::string>{"line"});
}

TEST_F(ClientReportTest, DestructionDropsWhatIsLeftOtherwise) {
  auto report = started();
  report->set_destructor_wait(false);
  report->report(ECity, "Turku");
  report->reportSimpleLog("line", 10);
  report.reset();
  EXPECT_EQ(ledger.countCalls(), 0);
  EXPECT_EQ(ledger.lineCalls(), 0);
}

TEST_F(ClientReportTest, DestructionIsBoundedWhenTheServiceHangs) {
  auto report = started(kShortStop);
  report->set_destructor_wait(true);
  report->report(ECity, "Turku");
  ledger.hang();
  const std::int64_t taken = millisTaken([&report] { report.reset(); });
  EXPECT_GE(taken, kShortStop - 10);
  EXPECT_LT(taken, kShortStop + 10000);  // the call would hang for ever
  // The thread left behind ends when the ledger lets the call return; nothing of it is touched
  // then.
}

TEST_F(ClientReportTest, DestructionDoesNotWaitForAHangingServiceUnlessTold) {
  auto report = started(1000000);
  report->set_destructor_wait(false);
  report->report(ECity, "Turku");
  ledger.hang();
  clock.advance(ClientReport::kIntervalMillis);
  ledger.awaitHangingCall();
  report.reset();
}

/// Hangs in every call until it is cancelled.
class HangingProxy : public ravel::TolvarProxy {
 public:
  ravel::TolvarPrx selectServer(std::int64_t) override { return nullptr; }
  void cancelCalls() override {
    std::lock_guard<std::mutex> lock(mutex);
    cancelled = true;
    changed.notify_all();
    if (cancelThrows) throw 1;
  }
  int getConf(ravel::ClientConf&, const ravel::CallContext&, ravel::CallContext*) override {
    return 0;
  }
  int checkChangeAdv(const ravel::CheckReq&, ravel::CheckInfo&, const ravel::CallContext&,
                     ravel::CallContext*) override {
    return 0;
  }
  int totalDownloadIPInfo(std::uint32_t, std::uint32_t, std::uint32_t, ravel::downloadInfo&,
                          const ravel::CallContext&, ravel::CallContext*) override {
    return 0;
  }
  int totalDownloadCode(std::vector<ravel::CodeInfo>&, const ravel::CallContext&,
                        ravel::CallContext*) override {
    return 0;
  }
  int reportCounts(const std::vector<ravel::ReportCount>&, std::uint64_t, const ravel::CallContext&,
                   ravel::CallContext*) override {
    std::unique_lock<std::mutex> lock(mutex);
    ++calls;
    changed.wait(lock, [this] { return cancelled; });
    throw qel::ZU_Exception("cancelled");
  }
  int reportLines(const std::vector<std::string>&, std::uint64_t, const ravel::CallContext&,
                  ravel::CallContext*) override {
    return 0;
  }

  std::mutex mutex;
  std::condition_variable changed;
  bool cancelled = false;
  bool cancelThrows = false;
  int calls = 0;
};

TEST_F(ClientReportTest, AHangingCallIsCancelledSoThatNoThreadStaysBehind) {
  auto proxy = std::make_shared<HangingProxy>();
  auto report = started(kShortStop);
  report->setTolvarPrx(proxy);
  report->report(ECity, "Turku");
  report.reset();
  EXPECT_TRUE(proxy->cancelled);
  EXPECT_EQ(proxy->calls, 1);
  EXPECT_EQ(proxy.use_count(), 1) << "the thread has ended and let go of the proxy";
}

TEST_F(ClientReportTest, ACancellationThatThrowsEndsNoProcess) {
  auto proxy = std::make_shared<HangingProxy>();
  proxy->cancelThrows = true;
  auto report = started(kShortStop);
  report->setTolvarPrx(proxy);
  report->report(ECity, "Turku");
  report.reset();
  EXPECT_EQ(proxy.use_count(), 1);
}

TEST_F(ClientReportTest, TheHangingCallKeepsItsProxyAlive) {
  std::weak_ptr<ravel::TolvarProxy> watched;
  {
    auto report = std::make_unique<ClientReport>(clock, 10);
    auto proxy = ledger.proxy();
    watched = proxy;
    report->setTolvarPrx(std::move(proxy));
    report->report(ECity, "Turku");
    ledger.hang();
    report->start();
    report.reset();
  }
  EXPECT_FALSE(watched.expired());
}

TEST_F(ClientReportTest, StopMayBeRepeatedAndStartMayFollow) {
  auto report = started();
  report->stop();
  report->stop();
  report->report(ECity, "Turku");
  EXPECT_EQ(ledger.hits(), 0u);
  report->start();
  report->start();
  clock.awaitWaiters(1);
  EXPECT_EQ(clock.waiters(), 1u);
  clock.advance(ClientReport::kIntervalMillis);
  clock.awaitWaiters(1);
  EXPECT_EQ(ledger.count(ECity, "Turku"), 1u);
}

TEST_F(ClientReportTest, StartsAnewAfterAHangingCallWasLeftBehind) {
  auto report = started(10);
  report->report(ECity, "Turku");
  ledger.hang();
  report->stop();
  report->report(ECity, "Oulu");
  report->start();
  clock.awaitWaiters(1);
  ledger.release();
  report->stop();
  EXPECT_EQ(ledger.count(ECity, "Oulu"), 1u);
}

TEST_F(ClientReportTest, ReportsBeforeStartAreKeptAndThoseWithoutServiceAreHarmless) {
  {
    ClientReport lonely(clock);
    lonely.report(ECity, "Turku");
    lonely.reportSimpleLog("line", 10);
  }
  {
    ClientReport proxyless(clock);
    proxyless.start();
    proxyless.report(ECity, "Turku");
  }
  ClientReport report(clock);
  report.report(ECity, "Turku");
  report.setTolvarPrx(ledger.proxy());
  report.start();
  report.stop();
  EXPECT_EQ(ledger.count(ECity, "Turku"), 1u);
}

TEST_F(ClientReportTest, StartTellsWhenNoThreadCanBeMade) {
  const SystemCallsGuard guard;
  guard.calls().pthreadCreate = [](pthread_t*, const pthread_attr_t*, void* (*)(void*), void*) {
    return EAGAIN;
  };
  ClientReport report(clock);
  EXPECT_THROW(report.start(), qel::ZU_Exception);
  guard.calls() = qel::realSystemCalls();
  report.setTolvarPrx(ledger.proxy());
  report.report(ECity, "Turku");
  report.start();
  report.stop();
  EXPECT_EQ(ledger.hits(), 1u);
}

TEST_F(ClientReportTest, AForkedChildReportsAndEndsWithoutDeliveringTheParentsHits) {
  auto report = started();
  report->report(ECity, "Turku");
  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    report->report(ECity, "Turku");
    report->reportSimpleLog("line", 10);
    report.reset();
    _exit(ledger.countCalls());
  }
  int status = -1;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);
  report.reset();
  EXPECT_EQ(ledger.count(ECity, "Turku"), 1u);
  EXPECT_TRUE(ledger.lines().empty());
}

}  // namespace
