// Threads that look up without pause while a started client replaces its tables as fast as it can.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <vector>

#include "tests/crash/answer_check.h"
#include "tests/crash/process_figures.h"
#include "tests/crash/whole_image.h"
#include "tests/src/update/scene.h"
#include "tests/support/plant.h"
#include "tools/tolvar/paced_clock.h"

namespace tolvar_test {
namespace {

constexpr std::size_t kRows = 500;
constexpr std::uint32_t kVersions = 300;
constexpr std::uint32_t kWarmUp = 60;
constexpr int kReaders = 3;
constexpr std::uint64_t kLeastAnswers = 20000;
/// Makes ten minutes of the client's clock pass in a millisecond.
constexpr int kPace = 600000;

Version versionOfRun(std::uint32_t number) { return {number, kRows + number % 16, number % 5 + 1}; }

/// A service that has a new version whenever it is asked.
class RestlessService {
 public:
  explicit RestlessService(const std::shared_ptr<FakeService>& service)
      : _service(service), _server(service) {
    const auto check = service->checkChange;
    service->checkChange = [this, check](const ravel::CheckReq& req, ravel::CheckInfo& info) {
      renew();
      check(req, info);
    };
    renew();
  }

  /// False when that takes too long.
  bool awaitVersion(std::uint32_t version) {
    std::unique_lock<std::mutex> hold(_mutex);
    return _renewed.wait_for(hold, std::chrono::seconds(200), [&] { return _version >= version; });
  }

  std::uint32_t version() {
    const std::lock_guard<std::mutex> hold(_mutex);
    return _version;
  }

 private:
  void renew() {
    _service->forgetCalls();
    const std::lock_guard<std::mutex> hold(_mutex);
    _server.publish(tableOf(versionOfRun(++_version)));
    _renewed.notify_all();
  }

  const std::shared_ptr<FakeService> _service;
  TableServer _server;
  std::mutex _mutex;
  std::condition_variable _renewed;
  std::uint32_t _version = 0;
};

struct ReplacementScene : Scene {
  RestlessService restless{service};
  tolvar::tools::PacedClock clock;
  ClockedClient client{clock};

  ReplacementScene() { plantSegments(keys, smallCapacities(2 * kRows, 16)); }
};

std::vector<Version> versionsUpTo(std::uint32_t newest) {
  std::vector<Version> versions;
  for (std::uint32_t v = newest > 3 ? newest - 3 : 1; v <= newest; ++v)
    versions.push_back(versionOfRun(v));
  return versions;
}

TEST(Replacement, NoAnswerMixesTwoVersionsAndMemoryStaysFlat) {
  ReplacementScene scene;
  ASSERT_TRUE(scene.client.initialize(scene.options()));
  std::atomic<bool> stop{false};
  std::atomic<std::uint64_t> answers{0};
  std::vector<std::string> problems(kReaders);
  std::vector<std::thread> readers;
  for (int i = 0; i < kReaders; ++i) {
    readers.emplace_back([&, i] {
      AnswerCheck check(scene.client, kRows);
      while (!stop && check.round()) continue;
      answers += check.lookups();
      problems[static_cast<std::size_t>(i)] = check.problem();
    });
  }
  scene.clock.setPace(kPace);
  const bool warm = scene.restless.awaitVersion(kWarmUp);
  const ProcessFigures before = figuresOf(getpid());
  const bool done = scene.restless.awaitVersion(kVersions);
  const ProcessFigures after = figuresOf(getpid());
  stop = true;
  for (std::thread& reader : readers) reader.join();

  EXPECT_TRUE(warm && done) << "the client came to version " << scene.restless.version();
  for (const std::string& problem : problems) EXPECT_EQ(problem, "");
  EXPECT_GE(answers, kLeastAnswers);
  EXPECT_GE(scene.client.status().publications, kVersions / 2);
  EXPECT_LE(after.privateKib, before.privateKib + before.privateKib / 4 + kFlatMemoryKib);
  EXPECT_EQ(after.descriptors, before.descriptors);
  EXPECT_EQ(after.segments, before.segments);
}

TEST(Replacement, TheImageIsWholeWhenTheClientIsDestroyedInTheMiddleOfIt) {
  Scene scene;
  plantSegments(scene.keys, smallCapacities(2 * kRows, 16));
  RestlessService restless(scene.service);
  for (std::uint32_t round = 1; round <= 10; ++round) {
    const std::uint32_t from = restless.version();
    {
      tolvar::tools::PacedClock clock;
      ClockedClient client(clock);
      ASSERT_TRUE(client.initialize(scene.options()));
      clock.setPace(kPace);
      ASSERT_TRUE(restless.awaitVersion(from + 3 + round));
    }
    const std::vector<Version> versions = versionsUpTo(restless.version());
    const Halves first = halvesOf(scene.keys.data0(), versions);
    const Halves second = halvesOf(scene.keys.data1(), versions);
    EXPECT_TRUE(first.ranges != 0 || second.ranges != 0);
  }
}

}  // namespace
}  // namespace tolvar_test
