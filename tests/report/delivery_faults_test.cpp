#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <ostream>
#include <string>

#include "report/client_report.h"
#include "report/report_store.h"
#include "tests/faults/failing_allocations.h"
#include "tests/support/fake_service.h"
#include "tests/support/manual_clock.h"

/// What becomes of reports when the reporter's thread runs out of memory.
namespace {

using namespace tolvar_test;

/// More than a node of a deque holds, and text that is longer than a string object.
constexpr int kNames = 20;
constexpr int kLines = 20;
std::string longText(const char* what, int number) {
  return std::string(what) + " that takes memory of its own, number " + std::to_string(number);
}

/// While it lives, the calling thread's allocations succeed.
struct Spared {
  Spared() { spareThisThread(true); }
  ~Spared() { spareThisThread(false); }
  Spared(const Spared&) = delete;
  Spared& operator=(const Spared&) = delete;
};

/// A ManualClock whose own memory never runs out.
class SparedClock final : public qel::Clock {
 public:
  timeval timeOfDay() const override { return _clock.timeOfDay(); }
  std::int64_t steadyMillis() const override { return _clock.steadyMillis(); }
  bool wait(qel::ZU_ThreadCond& cond, qel::ZU_ThreadMutex& mutex, int milliseconds) override {
    const Spared spared;
    return _clock.wait(cond, mutex, milliseconds);
  }

  /// Lets one interval pass and waits until its delivery is over.
  void passInterval() {
    _clock.advance(ClientReport::kIntervalMillis);
    awaitWaiter();
  }
  void awaitWaiter() { _clock.awaitWaiters(1); }

 private:
  ManualClock _clock;
};

/// Sums of what a service received. Takes no memory.
struct Sums {
  std::uint64_t hits = 0;
  std::uint64_t droppedHits = 0;
  std::uint64_t lines = 0;
  std::uint64_t emptyLines = 0;
  std::uint64_t droppedLines = 0;
};

/// How many calls of each kind fail, and how many allocations in a row.
struct Trouble {
  int countCalls;
  int lineCalls;
  std::int64_t allocations;

  friend void PrintTo(const Trouble& trouble, std::ostream* out) {
    *out << trouble.countCalls << " calls for counts, " << trouble.lineCalls
         << " for lines and allocations in a row: " << trouble.allocations;
  }
};

class DeliveryFaults : public testing::TestWithParam<Trouble> {
 protected:
  DeliveryFaults() {
    service->reportCounts = [this](const auto& counts, std::uint64_t dropped) {
      answer(&failing.countCalls);
      for (const auto& count : counts) sums.hits += count.count;
      sums.droppedHits += dropped;
    };
    service->reportLines = [this](const auto& lines, std::uint64_t dropped) {
      answer(&failing.lineCalls);
      for (const std::string& line : lines) ++(line.empty() ? sums.emptyLines : sums.lines);
      sums.droppedLines += dropped;
    };
  }

  static void answer(int* calls) {
    if (*calls == 0) return;
    --*calls;
    const Spared spared;
    throw qel::ZU_Exception("the service is not there");
  }

  /// Lets allocations from number `first` on fail during one delivery of names and lines, and then
  /// delivers what is left. Answers whether one failed.
  bool failDelivery(std::int64_t first, ClientReport& report, SparedClock& clock) {
    for (int i = 0; i < kNames; ++i) report.report(ravel::ECity, longText("a name", i));
    for (int i = 0; i < kLines; ++i) report.reportSimpleLog(longText("a line", i), kLines);
    failing = GetParam();
    armAllocations(first, failing.allocations);
    clock.passInterval();
    healAllocations();
    clock.passInterval();
    clock.passInterval();
    return allocationFailed();
  }

  /// What may wait is exactly the whole of both bounds: one line that fills the bytes is taken, and
  /// neither another line nor another byte.
  void expectNothingWaits(ClientReport& report, SparedClock& clock) {
    const Sums before = sums;
    report.reportSimpleLog(std::string(tolvar::ReportStore::kMaxLineBytes, 'x'), 1);
    report.reportSimpleLog("", 1);
    report.reportSimpleLog("x", 2);
    clock.passInterval();
    EXPECT_EQ(sums.lines - before.lines, 1u);
    EXPECT_EQ(sums.emptyLines - before.emptyLines, 0u);
    EXPECT_EQ(sums.droppedLines - before.droppedLines, 2u);
  }

  std::shared_ptr<FakeService> service = std::make_shared<FakeService>();
  // Touched by calls of the service, and by the test while no delivery is under way.
  Trouble failing{};
  Sums sums;
};

TEST_P(DeliveryFaults, EveryHitAndLineIsDeliveredOrToldAsDropped) {
  const Spared spared;
  bool reached = true;
  std::int64_t first = 1;
  for (; reached && !HasFailure(); ++first) {
    SCOPED_TRACE("allocation " + std::to_string(first));
    sums = {};
    SparedClock clock;
    ClientReport report(clock);
    report.setTolvarPrx(fakeProxy(service));
    report.start();
    clock.awaitWaiter();
    reached = failDelivery(first, report, clock);
    EXPECT_EQ(sums.hits + sums.droppedHits, static_cast<std::uint64_t>(kNames));
    EXPECT_EQ(sums.lines + sums.droppedLines, static_cast<std::uint64_t>(kLines));
    EXPECT_EQ(sums.emptyLines, 0u);
    expectNothingWaits(report, clock);
  }
  EXPECT_GT(first, kNames) << "a delivery takes more allocations than that";
}

INSTANTIATE_TEST_SUITE_P(Troubles, DeliveryFaults,
                         testing::Values(Trouble{0, 0, 1}, Trouble{0, 0, 1000}, Trouble{1, 0, 1},
                                         Trouble{1, 0, 1000}, Trouble{0, 1, 1},
                                         Trouble{0, 1, 1000}));

}  // namespace
