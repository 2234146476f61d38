#include <gtest/gtest.h>
#include <sched.h>

#include <mutex>

#include "tests/src/update/scene.h"

namespace tolvar_test {
namespace {

/// Time passes in the rounds of `initialize` only; every other wait lasts until it is notified.
class RoundClock : public qel::Clock {
 public:
  timeval timeOfDay() const override { return {1700000000 + _millis / 1000, 0}; }
  std::int64_t steadyMillis() const override { return _millis; }
  bool wait(qel::ZU_ThreadCond& cond, qel::ZU_ThreadMutex& mutex, int milliseconds) override {
    if (milliseconds != 100) {
      cond.wait(mutex);
      return true;
    }
    mutex.unlock();
    while (beforeRound && !beforeRound()) sched_yield();
    ++rounds;
    _millis += milliseconds;
    mutex.lock();
    return false;
  }

  std::function<bool()> beforeRound;  ///< a round ends when this says so
  int rounds = 0;

 private:
  std::atomic<std::int64_t> _millis{0};
};

std::vector<std::string> finishLines(Scene& scene) {
  scene.output.take();
  return textsStarting(scene.output.out, "TolvarAPI initialize finish");
}

TEST(Readiness, UnreachableServiceWithoutAnImageAnswersFalseAfter30Seconds) {
  Scene scene;
  plantSmallSegments(scene.keys, 8, 8);
  TableServer server(scene.service);
  server.setDown(true);
  RoundClock clock;
  clock.beforeRound = [&] { return scene.callsStarting("checkChangeAdv").size() == 1; };
  ClockedClient client(clock);
  EXPECT_FALSE(client.initialize(scene.options()));
  EXPECT_EQ(clock.rounds, 300);
  EXPECT_EQ(finishLines(scene),
            std::vector<std::string>{
                "TolvarAPI initialize finish, m_has_initialized=0, clt_md5=0, cost=30s."});
  EXPECT_FALSE(client.isAlive()) << "the update thread was stopped and joined";
  EXPECT_EQ(textsStarting(scene.output.out, "initialize exception:the service is down").size(), 1u);
  EXPECT_GE(textsAt(scene.output.err, 831).size(), 1u);
  EXPECT_FALSE(client.status().lastError.empty());
}

TEST(Readiness, UnreachableServiceOnAClockThatRunsByItself) {
  Scene scene;
  plantSmallSegments(scene.keys, 8, 8);
  TableServer server(scene.service);
  server.setDown(true);
  ManualClock clock(true);
  ClockedClient client(clock);
  const std::int64_t begin = clock.steadyMillis();
  EXPECT_FALSE(client.initialize(scene.options()));
  EXPECT_GE(clock.steadyMillis() - begin, 30000);
  const auto lines = finishLines(scene);
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0].rfind("TolvarAPI initialize finish, m_has_initialized=0, clt_md5=0, cost=", 0),
            0u);
}

TEST(Readiness, AServiceThatOffersNothingIsWhatFailed) {
  Scene scene;
  plantSmallSegments(scene.keys, 8, 8);
  scene.service->checkChange = [](const ravel::CheckReq&, ravel::CheckInfo&) {};
  ManualClock clock(true);
  ClockedClient client(clock);
  EXPECT_FALSE(client.initialize(scene.options()));
  EXPECT_TRUE(client.status().failing);
  EXPECT_EQ(client.status().lastError,
            "initialize: the service offered neither ranges nor names in time");
}

TEST(Readiness, CodesThatNeverComeLeaveMask1) {
  Scene scene;
  plantSmallSegments(scene.keys, 8, 8);
  TableServer server(scene.service);
  server.publish(selfCheckingTable(1, 3));
  server.beforeCodes = [] { throw qel::ZU_Exception("no codes"); };
  RoundClock clock;
  clock.beforeRound = [&] { return scene.callsStarting("totalDownloadCode").size() == 9; };
  ClockedClient client(clock);
  EXPECT_FALSE(client.initialize(scene.options()));
  EXPECT_EQ(finishLines(scene),
            std::vector<std::string>{"TolvarAPI initialize finish, m_has_initialized=1, clt_md5=" +
                                     server.digest() + ", cost=30s."});
}

TEST(Readiness, RangesThatNeverComeLeaveMask2) {
  Scene scene;
  plantSmallSegments(scene.keys, 8, 8);
  TableServer server(scene.service);
  server.publish(selfCheckingTable(1, 3));
  server.beforePage = [] { throw qel::ZU_Exception("no page"); };
  RoundClock clock;
  clock.beforeRound = [&] { return scene.callsStarting("FirstTotalDownload").size() == 9; };
  ClockedClient client(clock);
  EXPECT_FALSE(client.initialize(scene.options()));
  EXPECT_EQ(finishLines(scene),
            std::vector<std::string>{
                "TolvarAPI initialize finish, m_has_initialized=2, clt_md5=0, cost=30s."});
}

TEST(Readiness, TablesThatComeLateEndTheWait) {
  Scene scene;
  plantSmallSegments(scene.keys, 8, 8);
  TableServer server(scene.service);
  server.publish(selfCheckingTable(1, 3));
  RoundClock clock;
  std::atomic<bool> released{false};
  server.beforePage = [&] {
    while (!released) sched_yield();
  };
  ClockedClient client(clock);
  tolvar::ClientTestAccess access(client);
  clock.beforeRound = [&] {
    if (clock.rounds < 100) return true;
    released = true;
    std::lock_guard<qel::ZU_ThreadMutex> hold(access.hasInitializedMutex());
    return access.hasInitialized() == 3;
  };
  EXPECT_TRUE(client.initialize(scene.options()));
  EXPECT_EQ(clock.rounds, 101);
}

TEST(Readiness, ImageInPlaceNeedsNoRound) {
  Scene scene;
  plantSmallSegments(scene.keys, 8, 8);
  TableServer server(scene.service);
  server.publish(selfCheckingTable(1, 3));
  {
    TolvarAPI first;
    ASSERT_TRUE(first.initialize(scene.options()));
  }
  RoundClock clock;
  ClockedClient client(clock);
  EXPECT_TRUE(client.initialize(scene.options()));
  EXPECT_EQ(clock.rounds, 0);
}

TEST(Readiness, AnOverloadedServiceIsWhatFailed) {
  Scene scene;
  plantSmallSegments(scene.keys, 8, 8);
  scene.service->checkChange = [](const auto&, ravel::CheckInfo& info) { info.isNetFlow = 1; };
  RoundClock clock;
  // The check is answered before the time is over.
  clock.beforeRound = [&] { return !scene.callsStarting("checkChangeAdv").empty(); };
  ClockedClient client(clock);
  EXPECT_FALSE(client.initialize(scene.options()));
  EXPECT_TRUE(client.status().failing);
  EXPECT_EQ(client.status().lastError,
            "initialize: the service is overloaded and sends no tables; try later");
}

}  // namespace
}  // namespace tolvar_test
