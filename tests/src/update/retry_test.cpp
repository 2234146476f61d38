#include <gtest/gtest.h>

#include "src/retry_backoff.h"
#include "tests/src/update/scene.h"

namespace tolvar_test {
namespace {

/// Milliseconds that each of `count` calls of `step` waits.
template <class Step>
std::vector<std::int64_t> waits(ManualClock& clock, int count, Step step) {
  std::vector<std::int64_t> all;
  for (int i = 0; i < count; ++i) {
    const std::int64_t begin = clock.steadyMillis();
    step();
    all.push_back(clock.steadyMillis() - begin);
  }
  return all;
}

const std::vector<std::int64_t> kExpected = {0,  0,  0,  0,   0,   0,   0,    0,    10,
                                             20, 40, 80, 160, 320, 640, 1000, 1000, 1000};

void fail(StepScene& scene) {
  scene.service->firstDownload = [](auto, auto, auto, auto&) { throw qel::ZU_Exception("down"); };
  scene.service->codes = [](auto&) { throw qel::ZU_Exception("down"); };
}

TEST(Retry, DownloadWaitsFromTheNinthFailureOnUpToASecond) {
  StepScene scene;
  fail(scene);
  scene.access.isTotalDownLoading() = true;
  EXPECT_EQ(waits(scene.clock, 18, [&] { EXPECT_TRUE(scene.access.totalDownloadRequest()); }),
            kExpected);
}

TEST(Retry, CodeTablesWaitFromTheNinthFailureOnUpToASecond) {
  StepScene scene;
  fail(scene);
  scene.access.isCheckingCode() = true;
  EXPECT_EQ(waits(scene.clock, 18, [&] { EXPECT_TRUE(scene.access.checkCodeChangeRequest()); }),
            kExpected);
}

TEST(Retry, PageThatAdvancesBeginsTheCountAnew) {
  StepScene scene;
  scene.access.isTotalDownLoading() = true;
  const auto step = [&] { scene.access.totalDownloadRequest(); };
  fail(scene);
  waits(scene.clock, 10, step);
  scene.service->firstDownload = [](auto, auto, auto, ravel::downloadInfo& page) {
    ravel::IPProperty range = row(1, 2);
    range.sequence = 1;
    page.IPContent = {range};
    page.lowMaxIndex = 100;
  };
  EXPECT_EQ(waits(scene.clock, 1, step), std::vector<std::int64_t>{0});
  fail(scene);
  EXPECT_EQ(waits(scene.clock, 18, step), kExpected);
}

TEST(Retry, PageThatNeverAdvancesIsNotAskedForInATightLoop) {
  StepScene scene;
  scene.access.isTotalDownLoading() = true;
  scene.access.currDownloadPos() = 5;
  scene.service->firstDownload = [](auto, auto, auto, ravel::downloadInfo& page) {
    ravel::IPProperty range = row(1, 2);
    range.sequence = 5;
    page.IPContent = {range};
    page.lowMaxIndex = 100;
  };
  EXPECT_EQ(waits(scene.clock, 18, [&] { scene.access.totalDownloadRequest(); }), kExpected);
  EXPECT_EQ(scene.access.gathered().size(), 1u);
}

TEST(Retry, NewRetryBackoffBeginsWithEightFreeFailures) {
  tolvar::RetryBackoff retry;
  for (int i = 0; i < 8; ++i) EXPECT_EQ(retry.failed(), 0);
  EXPECT_EQ(retry.failed(), 10);
  retry.succeeded();
  EXPECT_EQ(retry.failed(), 0);
}

class StopDuringRetry : public testing::TestWithParam<bool> {};

TEST_P(StopDuringRetry, EndsTheWaitAtOnce) {
  Scene scene;
  scene.service->checkChange = [](const auto&, ravel::CheckInfo& info) { info.isReset = 1; };
  const bool download = GetParam();
  scene.service->firstDownload = [download](auto, auto, auto, ravel::downloadInfo&) {
    if (download) throw qel::ZU_Exception("down");
  };
  scene.service->codes = [download](auto&) {
    if (!download) throw qel::ZU_Exception("down");
  };
  ManualClock clock;
  {
    plantSmallSegments(scene.keys, 8, 8);
    ClockedClient client(clock);
    tolvar::ClientTestAccess access(client);
    access.tolvarPrx() = fakeProxy(scene.service);
    access.fTolvarPrx() = fakeFastProxy(scene.service);
    access.InitializeShareMemory(scene.keys.data0(), scene.keys.data1(), scene.keys.size());
    client.start();
    clock.awaitWaiters(1);
  }
  EXPECT_EQ(clock.steadyMillis(), 5000) << "no time had to pass";
  const auto calls = download ? scene.callsStarting("FirstTotalDownloadIPInfo")
                              : scene.callsStarting("totalDownloadCode");
  EXPECT_EQ(calls.size(), 9u) << "eight at once, the ninth waits";
}

INSTANTIATE_TEST_SUITE_P(DownloadOrCodes, StopDuringRetry, testing::Bool());

}  // namespace
}  // namespace tolvar_test
