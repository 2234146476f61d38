#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "report/client_report.h"
#include "tests/report/service_ledger.h"
#include "tests/support/manual_clock.h"

/// When and what the reporter's thread delivers.
namespace {

using namespace tolvar_test;
using ravel::ECity;
using ravel::ECountry;

class Delivery : public testing::Test {
 protected:
  Delivery() {
    report.setTolvarPrx(ledger.proxy());
    report.start();
    clock.awaitWaiters(1);
  }

  /// Lets one interval pass and waits until its delivery is over.
  void passInterval() {
    clock.advance(ClientReport::kIntervalMillis);
    clock.awaitWaiters(1);
  }

  ServiceLedger ledger;
  ManualClock clock;
  ClientReport report{clock};
};

TEST_F(Delivery, HappensEveryIntervalAndNotBefore) {
  report.report(ECountry, "Finland");
  clock.advance(ClientReport::kIntervalMillis - 1);
  EXPECT_EQ(ledger.countCalls(), 0);
  clock.advance(1);
  clock.awaitWaiters(1);
  EXPECT_EQ(ledger.countCalls(), 1);
  EXPECT_EQ(ledger.count(ECountry, "Finland"), 1u);
  report.report(ECountry, "Finland");
  passInterval();
  EXPECT_EQ(ledger.countCalls(), 2);
  EXPECT_EQ(ledger.count(ECountry, "Finland"), 2u);
}

TEST_F(Delivery, NothingToSayMakesNoCall) {
  passInterval();
  passInterval();
  EXPECT_EQ(ledger.countCalls(), 0);
  EXPECT_EQ(ledger.lineCalls(), 0);
}

TEST_F(Delivery, TakesNamesInEveryForm) {
  report.report(ECity, "Turku");
  report.report(ECity, std::string("Turku"));
  report.report(ECity, std::string_view("Turku"));
  report.report(ECity, "");
  passInterval();
  EXPECT_EQ(ledger.count(ECity, "Turku"), 3u);
  EXPECT_EQ(ledger.count(ECity, ""), 1u);
}

TEST_F(Delivery, FailedOneIsRepeatedAtTheNextIntervalWithoutLossOrDoubleCount) {
  report.report(ECity, "Turku");
  report.reportSimpleLog("one", 100);
  ledger.failNext(1);
  passInterval();
  EXPECT_EQ(ledger.hits(), 0u);
  EXPECT_EQ(ledger.countCalls(), 1);
  EXPECT_EQ(ledger.lineCalls(), 0) << "a service that is not there is asked once an interval";

  report.report(ECity, "Turku");
  report.reportSimpleLog("two", 100);
  ledger.failNext(1);
  passInterval();
  report.report(ECity, "Oulu");
  passInterval();
  EXPECT_EQ(ledger.count(ECity, "Turku"), 2u);
  EXPECT_EQ(ledger.count(ECity, "Oulu"), 1u);
  EXPECT_EQ(ledger.lines(), (std::vector<std::string>{"one", "two"}));
  EXPECT_EQ(ledger.droppedHits(), 0u);
  passInterval();
  EXPECT_EQ(ledger.hits(), 3u);
  EXPECT_EQ(ledger.lines().size(), 2u);
}

TEST_F(Delivery, LinesOfAFailedCallGoFirstTheNextTime) {
  for (int i = 0; i < 10; ++i) report.reportSimpleLog(std::to_string(i), 100);
  ledger.failNext(1);
  passInterval();
  for (int i = 10; i < 20; ++i) report.reportSimpleLog(std::to_string(i), 100);
  passInterval();
  const auto lines = ledger.lines();
  ASSERT_EQ(lines.size(), 20u);
  for (int i = 0; i < 20; ++i) EXPECT_EQ(lines[i], std::to_string(i));
}

TEST_F(Delivery, LargeReportsGoInSeveralCalls) {
  for (int i = 0; i < 10000; ++i) report.report(ECity, std::to_string(i));
  passInterval();
  EXPECT_EQ(ledger.names(), 10000u);
  EXPECT_EQ(ledger.hits(), 10000u);
  EXPECT_EQ(ledger.countCalls(), 3);
  EXPECT_LE(ledger.largestCall(), 4096u);

  for (int i = 0; i < 2500; ++i) report.reportSimpleLog(std::to_string(i), 5000);
  passInterval();
  EXPECT_EQ(ledger.lineCalls(), 3);
  EXPECT_EQ(ledger.lines().size(), 2500u);
}

TEST_F(Delivery, AFailureBetweenTheCallsOfALargeReportKeepsOnlyTheRest) {
  for (int i = 0; i < 10000; ++i) report.report(ECity, std::to_string(i));
  ledger.failNext(1, 1);
  passInterval();
  EXPECT_EQ(ledger.names(), 4096u);
  passInterval();
  EXPECT_EQ(ledger.names(), 10000u);
  EXPECT_EQ(ledger.hits(), 10000u);
  EXPECT_EQ(ledger.droppedHits(), 0u);
}

TEST_F(Delivery, LimitOfWaitingLinesIncludesThoseOfAFailedDelivery) {
  for (int i = 0; i < 5; ++i) report.reportSimpleLog(std::to_string(i), 3);
  ledger.failNext(1);
  passInterval();
  report.reportSimpleLog("no room", 3);
  passInterval();
  EXPECT_EQ(ledger.lines(), (std::vector<std::string>{"0", "1", "2"}));
  EXPECT_EQ(ledger.droppedLines(), 3u);
  report.reportSimpleLog("room again", 3);
  passInterval();
  EXPECT_EQ(ledger.lines().back(), "room again");
  EXPECT_EQ(ledger.droppedLines(), 3u);
}

TEST_F(Delivery, ALimitOfZeroQueuesNothingAndTheServiceLearnsOfIt) {
  report.reportSimpleLog("a", 0);
  report.reportSimpleLog("b", -5);
  passInterval();
  EXPECT_TRUE(ledger.lines().empty());
  EXPECT_EQ(ledger.droppedLines(), 2u);
  passInterval();
  EXPECT_EQ(ledger.droppedLines(), 2u);
}

TEST_F(Delivery, TooManyNamesAreCountedAsDroppedAndTheServiceLearnsOfIt) {
  for (int i = 0; i < 16384 + 10; ++i) report.report(ECity, std::to_string(i));
  ledger.failNext(1);
  passInterval();
  passInterval();
  EXPECT_EQ(ledger.names(), 16384u);
  EXPECT_EQ(ledger.droppedHits(), 10u);
}

TEST_F(Delivery, WithoutAProxyEverythingIsKept) {
  report.setTolvarPrx(nullptr);
  report.report(ECity, "Turku");
  report.reportSimpleLog("line", 10);
  passInterval();
  EXPECT_EQ(ledger.countCalls(), 0);
  report.setTolvarPrx(ledger.proxy());
  passInterval();
  EXPECT_EQ(ledger.count(ECity, "Turku"), 1u);
  EXPECT_EQ(ledger.lines(), std::vector<std::string>{"line"});
}

TEST_F(Delivery, ACallThatHangsDoesNotHoldUpTheCallers) {
  report.report(ECity, "Turku");
  ledger.hang();
  clock.advance(ClientReport::kIntervalMillis);
  ledger.awaitHangingCall();
  for (int i = 0; i < 1000; ++i) {
    report.report(ECity, "Turku");
    report.reportSimpleLog("line", 5000);
  }
  report.setTolvarPrx(ledger.proxy());
  ledger.release();
  clock.awaitWaiters(1);
  passInterval();
  EXPECT_EQ(ledger.count(ECity, "Turku"), 1001u);
  EXPECT_EQ(ledger.lines().size(), 1000u);
}

}  // namespace
