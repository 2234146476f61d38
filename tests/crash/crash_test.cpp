// A process is killed at every single change that it makes to shared memory; then others look.
#include <gtest/gtest.h>

#include <cstdlib>
#include <ostream>

#include "platform/shared_write_point.h"
#include "tests/crash/crash_scenarios.h"
#include "tests/crash/forked.h"
#include "tests/crash/image_copy.h"
#include "tests/crash/whole_image.h"
#include "tests/support/temp_dir.h"

namespace tolvar_test {

void PrintTo(const CrashScenario& scenario, std::ostream* out) { *out << scenario.name; }

namespace {

constexpr Version kNext{9, 7, 4};
constexpr int kMostProblems = 3;
/// In the expensive scenarios a process from before the kill looks on this often only.
constexpr int kBystanderEvery = 4;

/// With TOLVAR_CRASH_POINTS=all in the environment the expensive scenarios leave no change out.
int strideOf(const CrashScenario& scenario) {
  const char* const points = std::getenv("TOLVAR_CRASH_POINTS");
  return points != nullptr && std::string(points) == "all" ? 1 : scenario.stride;
}

std::string nameOf(const testing::TestParamInfo<CrashScenario>& test) { return test.param.name; }

/// What somebody who starts now sees, and that the service's next version can be published and is
/// then found by the next start.
void checkAndRecover(const ShmKeys& keys, const CrashScenario& scenario) {
  {
    CrashHost host(keys);
    const Halves seen = seenByAStart(host, scenario.versions, scenario.undamaged);
    if (scenario.staysReady && seen.ranges == 0) throw std::runtime_error("the image was lost");
    host.publish(kNext);
    expectBothHold(keys, kNext);
  }
  CrashHost next(keys);
  if (seenByAStart(next, {kNext}).ranges != kNext.number)
    throw std::runtime_error("the next start does not find what was published");
}

class CrashPoints : public testing::TestWithParam<CrashScenario> {
 protected:
  const CrashScenario& scenario() const { return GetParam(); }

  void report(const Ending& kill, const Ending& after, const char* who) {
    ++problems;
    ADD_FAILURE() << who << ", after a kill at change " << kill.points << " (\"" << kill.at
                  << "\"): " << after.problem << "\n"
                  << after.output;
  }

  Ending inAProcess(const std::function<void()>& body, int killAt = 0) {
    return Forked(body, killAt, scenario().counts).await();
  }

  /// Kills the acting process at its `point`-th change; then a new process looks. False when the
  /// acting process came to its end.
  bool killAndLook(const ImageCopy& before, int point) {
    before.restore();
    last = inAProcess([this] { scenario().act(keys); }, point);
    if (!last.killed && !last.finished) report(last, last, "the process itself");
    const Ending after = inAProcess([this] { checkAndRecover(keys, scenario()); });
    if (!after.finished) report(last, after, "the next start");
    return last.killed;
  }

  /// The same; then a process goes on that was attached before.
  void killAndGoOn(const ImageCopy& before, int point) {
    before.restore();
    Forked bystander([this] {
      CrashHost host(keys);
      host.start();
      const std::string digest = host.client.status().digest;
      Forked::pause();
      ravel::IPInfo info;
      if (host.client.getIPInfo(kFirstAddress, &info) != host.ready() ||
          host.client.status().digest != digest)
        throw std::runtime_error("lookups noticed");
      host.publish(kNext);
      expectBothHold(keys, kNext);
    });
    if (bystander.awaitPause()) last = inAProcess([this] { scenario().act(keys); }, point);
    bystander.resume();
    const Ending ending = bystander.await();
    if (!ending.finished) report(last, ending, "a process from before");
  }

  WorkingDirectory directory;
  ShmKeys keys;
  Ending last;
  int problems = 0;
};

TEST_P(CrashPoints, LeaveAWholeImageOrAnHonestNotReady) {
  ASSERT_TRUE(qel::kSharedWritePoints) << "this build cannot stop a process at a point";
  const Ending prepared = inAProcess([this] { scenario().prepare(keys); });
  ASSERT_TRUE(prepared.finished) << prepared.problem << prepared.output;
  const ImageCopy before(keys);
  const int stride = strideOf(scenario());
  int points = 0;
  for (int point = 1; problems < kMostProblems; point += stride) {
    if (!killAndLook(before, point)) break;
    if (stride == 1 || points % kBystanderEvery == 0) killAndGoOn(before, point);
    ++points;
  }
  EXPECT_EQ(problems, 0);
  EXPECT_GE(points, 8);
  RecordProperty("kills", points);
  std::printf("%d kills\n", points);
}

INSTANTIATE_TEST_SUITE_P(Every, CrashPoints, testing::ValuesIn(crashScenarios()), nameOf);

}  // namespace
}  // namespace tolvar_test
