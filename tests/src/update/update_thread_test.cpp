#include <gtest/gtest.h>

#include <deque>
#include <functional>
#include <stdexcept>

#include "tests/src/update/scene.h"

namespace tolvar_test {
namespace {

/// A client whose steps answer what the test says, pass by pass; when the script is over it ends.
class ScriptedClient : public TolvarAPI {
 public:
  struct Pass {
    bool check = false;
    bool download = false;
    bool codes = false;
    std::function<void()> inDownload = nullptr;
  };

  ScriptedClient(qel::Clock& clock, std::deque<Pass> script)
      : TolvarAPI(clock), _script(std::move(script)) {}
  ~ScriptedClient() override { stopUpdateThread(); }

  std::string steps;

 private:
  bool checkChange() override {
    steps += "c";
    if (_script.empty()) {
      terminate();
      return true;
    }
    _now = _script.front();
    _script.pop_front();
    return _now.check;
  }
  bool totalDownloadRequest() override {
    steps += "d";
    if (_now.inDownload) std::exchange(_now.inDownload, nullptr)();
    return _now.download;
  }
  bool checkCodeChangeRequest() override {
    steps += "k ";
    return _now.codes;
  }

  std::deque<Pass> _script;
  Pass _now;
};

using Pass = ScriptedClient::Pass;

/// Status lines of a run of the script on a clock that moves itself; `waited` is the time it moved.
std::vector<std::string> statusLines(std::deque<Pass> script, std::int64_t* waited = nullptr) {
  Output output;
  ManualClock clock(true);
  const std::int64_t begin = clock.steadyMillis();
  ScriptedClient client(clock, std::move(script));
  tolvar::ClientTestAccess(client).run();
  if (waited != nullptr) *waited = clock.steadyMillis() - begin;
  output.take();
  EXPECT_TRUE(output.err.empty());
  std::vector<std::string> lines = textsAt(output.out, 722);
  if (!lines.empty()) lines.pop_back();  // of the pass that ended the run
  return lines;
}

TEST(UpdateLoop, IdlePassLogsStatus0AndSleeps1000Milliseconds) {
  std::int64_t waited = 0;
  EXPECT_EQ(statusLines({Pass{}}, &waited), std::vector<std::string>{"ClientMD5 is 0, status=0"});
  EXPECT_EQ(waited, 1000);
}

TEST(UpdateLoop, CheckAloneGivesStatus7AndNoSleep) {
  std::int64_t waited = 0;
  EXPECT_EQ(statusLines({Pass{true, false, false}}, &waited),
            std::vector<std::string>{"ClientMD5 is 0, status=7"});
  EXPECT_EQ(waited, 0);
}

TEST(UpdateLoop, DownloadGivesStatus6AndNoSleep) {
  std::int64_t waited = 0;
  EXPECT_EQ(statusLines({Pass{false, true, false}, Pass{false, true, true}}, &waited),
            (std::vector<std::string>{"ClientMD5 is 0, status=6", "ClientMD5 is 0, status=6"}));
  EXPECT_EQ(waited, 0);
}

TEST(UpdateLoop, CodesAloneGiveStatus4AndNoSleep) {
  std::int64_t waited = 0;
  EXPECT_EQ(statusLines({Pass{false, false, true}}, &waited),
            std::vector<std::string>{"ClientMD5 is 0, status=4"});
  EXPECT_EQ(waited, 0);
}

TEST(UpdateLoop, EveryStepRunsOnEveryPass) {
  Output output;
  ManualClock clock(true);
  ScriptedClient client(clock, {Pass{true, true, true}, Pass{}});
  tolvar::ClientTestAccess(client).run();
  EXPECT_EQ(client.steps, "cdk cdk cdk ");
}

TEST(UpdateLoop, EscapedExceptionIsLoggedEndsThePassAndTheNextBeginsAtOnce) {
  Output output;
  ManualClock clock(true);
  const std::int64_t begin = clock.steadyMillis();
  ScriptedClient client(
      clock, {Pass{false, false, true, [] { throw std::runtime_error("x"); }}, Pass{true}});
  tolvar::ClientTestAccess(client).run();
  output.take();
  ASSERT_EQ(output.err.size(), 1u);
  EXPECT_EQ(output.err[0].number, 732);
  EXPECT_EQ(output.err[0].text, "run exception:x");
  EXPECT_EQ(client.steps, "cdcdk cdk ") << "the code step belongs to the pass that was given up";
  EXPECT_EQ(clock.steadyMillis(), begin) << "no wait";
  EXPECT_EQ(textsAt(output.out, 722).size(), 2u) << "no status line for the pass given up";
}

TEST(UpdateLoop, ForeignExceptionHasItsOwnLine) {
  Output output;
  ManualClock clock(true);
  ScriptedClient client(clock, {Pass{false, false, true, [] { throw 5; }}});
  tolvar::ClientTestAccess(client).run();
  output.take();
  ASSERT_EQ(output.err.size(), 1u);
  EXPECT_EQ(output.err[0].number, 737);
  EXPECT_EQ(output.err[0].text, "run exception.");
}

TEST(UpdateLoop, LinesCarryFileNameAndNumberBeforeTheLogIsUp) {
  testing::internal::CaptureStdout();
  testing::internal::CaptureStderr();
  {
    ManualClock clock(true);
    ScriptedClient client(clock, {Pass{false, false, true, [] { throw std::runtime_error("x"); }}});
    tolvar::ClientTestAccess(client).run();
  }
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "TolvarAPI:722]ClientMD5 is 0, status=7\n");
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "TolvarAPI:732]run exception:x\n");
}

TEST(UpdateLoop, BeforeInitializeThereIsNobodyToAsk) {
  Output output;
  ManualClock clock;
  ClockedClient client(clock);
  client.start();
  clock.awaitWaiters(1);
  const TolvarStatus status = client.status();
  EXPECT_TRUE(status.failing);
  EXPECT_EQ(status.lastError, "change check: no service to ask before initialize");
}

TEST(UpdateLoop, ASecondStartOfARunningThreadIsAnErrorAndNoMore) {
  Output output;
  ManualClock clock;
  {
    ScriptedClient client(clock, std::deque<Pass>(10));
    client.start();
    clock.awaitWaiters(1);
    client.start();
    EXPECT_TRUE(client.isAlive());
    EXPECT_TRUE(client.status().failing);
    EXPECT_EQ(client.steps, "cdk ");
  }
  output.take();
  EXPECT_EQ(textsStarting(output.out, "start exception:").size(), 1u);
}

TEST(UpdateLoop, StopRequestedDuringTheSleepEndsTheThreadWhenTheSecondIsOver) {
  Output output;
  ManualClock clock;
  ScriptedClient client(clock, std::deque<Pass>(10));
  client.start();
  clock.awaitWaiters(1);
  client.terminate();
  EXPECT_TRUE(client.isAlive()) << "terminate does not wake the thread";
  clock.advance(1000);
  client.getThreadControl().join();
  EXPECT_FALSE(client.isAlive());
  EXPECT_EQ(client.steps, "cdk ");
}

TEST(UpdateLoop, DestructionEndsTheSleepAtOnce) {
  Output output;
  ManualClock clock;
  {
    ScriptedClient client(clock, std::deque<Pass>(10));
    client.start();
    clock.awaitWaiters(1);
  }
  EXPECT_EQ(clock.steadyMillis(), 5000) << "no time had to pass";
}

TEST(UpdateLoop, NotifyAllWakesASleepingPass) {
  Output output;
  ManualClock clock;
  ScriptedClient client(clock, std::deque<Pass>(1));
  client.start();
  clock.awaitWaiters(1);
  {
    TolvarAPI::Lock hold(client);
    client.notifyAll();
  }
  client.getThreadControl().join();
  EXPECT_EQ(client.steps, "cdk cdk ");
}

TEST(UpdateLoop, LogFileTakesTheSameLines) {
  Scene scene;
  {
    ManualClock clock(true);
    ScriptedClient client(
        clock, {Pass{false, false, true, [] { throw std::runtime_error("x"); }}, Pass{}});
    TolvarAPIOptions options = scene.loggingOptions();
    options.ip_servant = "x.FTolvarObj@tcp";  // opens the log and goes no further
    ASSERT_FALSE(client.initialize(options));
    tolvar::ClientTestAccess(client).run();
  }
  scene.output.take();
  EXPECT_TRUE(scene.output.out.empty());
  EXPECT_TRUE(scene.output.err.empty());
  const OutputLines lines = parseLines(readFile(scene.logFile()));
  EXPECT_EQ(textsAt(lines, 732), std::vector<std::string>{"run exception:x"});
  const auto status = textsAt(lines, 722);
  ASSERT_EQ(status.size(), 2u);
  EXPECT_EQ(status[0], "ClientMD5 is 0, status=0");
  for (const OutputLine& line : lines) {
    if (line.number == 732) {
      EXPECT_NE(line.header.find("ERROR"), std::string::npos);
    }
    if (line.number == 722) {
      EXPECT_NE(line.header.find("DEBUG"), std::string::npos);
    }
  }
}

}  // namespace
}  // namespace tolvar_test
