#include "tools/tolvar/wait_notice.h"

#include <gtest/gtest.h>

#include <condition_variable>
#include <mutex>
#include <vector>

#include "tests/support/manual_clock.h"

namespace {

using tolvar::tools::WaitNotice;
using tolvar_test::ManualClock;

/// What was said, and the last error that a client has.
class Ear {
 public:
  WaitNotice::Say say() {
    return [this](const std::string& line) {
      const std::lock_guard lock(_mutex);
      _lines.push_back(line);
      _changed.notify_all();
    };
  }

  std::function<std::string()> lastError() {
    return [this] {
      const std::lock_guard lock(_mutex);
      return _error;
    };
  }

  void setError(const std::string& error) {
    const std::lock_guard lock(_mutex);
    _error = error;
  }

  std::vector<std::string> awaitLines(std::size_t count) {
    std::unique_lock lock(_mutex);
    _changed.wait(lock, [&] { return _lines.size() >= count; });
    return _lines;
  }

  std::vector<std::string> lines() { return awaitLines(0); }

 private:
  std::mutex _mutex;
  std::condition_variable _changed;
  std::vector<std::string> _lines;
  std::string _error;
};

TEST(WaitNotice, AnAnswerWithinASecondLeavesItSilent) {
  ManualClock clock;
  Ear ear;
  {
    const WaitNotice notice("host:1", ear.lastError(), ear.say(), clock);
    clock.awaitWaiters(1);
    clock.advance(WaitNotice::kPatienceMillis - 1);
  }
  EXPECT_TRUE(ear.lines().empty());
}

TEST(WaitNotice, SaysWhomItWaitsForAndThenTheErrorOnce) {
  ManualClock clock;
  Ear ear;
  {
    const WaitNotice notice("host:1", ear.lastError(), ear.say(), clock);
    clock.awaitWaiters(1);
    clock.advance(WaitNotice::kPatienceMillis);
    EXPECT_EQ(ear.awaitLines(1)[0], "no answer from host:1 yet; waiting for up to half a minute");
    clock.awaitWaiters(1);
    ear.setError("download: gone");
    clock.advance(WaitNotice::kPatienceMillis);
    EXPECT_EQ(ear.awaitLines(2)[1], "still waiting: download: gone");
  }
  EXPECT_EQ(ear.lines().size(), 2u);
}

TEST(WaitNotice, AnErrorThatIsKnownIsSaidAtOnce) {
  ManualClock clock(true);
  Ear ear;
  ear.setError("check: no");
  const WaitNotice notice("host:1", ear.lastError(), ear.say(), clock);
  EXPECT_EQ(ear.awaitLines(2)[1], "still waiting: check: no");
}

}  // namespace
