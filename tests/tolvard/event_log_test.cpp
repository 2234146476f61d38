#include "tools/tolvard/serve/event_log.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <csignal>
#include <future>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/temp_dir.h"

namespace {

using testing::HasSubstr;
using testing::StartsWith;
using tolvar::tools::EventLog;
using tolvar::tools::formatEvent;

TEST(EventLine, IsNameValuePairs) {
  EXPECT_EQ(formatEvent({1700000000, 123456}, "info", "listening",
                        {{"address", "127.0.0.1:1"}, {"n", 5}}),
            "time=2023-11-14T22:13:20.123Z level=info event=listening address=127.0.0.1:1 n=5");
}

TEST(EventLine, ValuesCannotBreakOut) {
  const std::string line = formatEvent({0, 0}, "warn", "call",
                                       {{"a", "x y"},
                                        {"b", "\"\\"},
                                        {"c", "1\n2\x01"},
                                        {"d", ""},
                                        {"e", "k=v"},
                                        {"f",
                                         "S\xC3\xBC"
                                         "d"},
                                        {"g", "\xff"}});
  EXPECT_THAT(line, HasSubstr(R"(a="x y" b="\"\\" c="1\n2\x01" d="" e="k=v")"));
  EXPECT_THAT(line, HasSubstr("f=\"S\xC3\xBC"
                              "d\" g=\"\\xFF\""));
  EXPECT_EQ(line.find('\n'), std::string::npos);
  EXPECT_THAT(formatEvent({0, 0}, "warn", "call", {{"a", "\n\xC2\x9Bx\xC2\xA0"}}),
              HasSubstr("a=\"\\n\\xC2\\x9Bx\xC2\xA0\""));
}

TEST(EventLog, LinesComeInOrder) {
  const tolvar_test::TempDir directory;
  const int file = open(directory.file("log").c_str(), O_WRONLY | O_CREAT, 0600);
  {
    EventLog log(file);
    for (int i = 0; i < 1000; ++i) log.info("tick", {{"i", i}});
  }
  close(file);
  const std::string text = tolvar_test::readFile(directory.file("log"));
  std::size_t at = 0;
  for (int i = 0; i < 1000; ++i) {
    at = text.find(" i=" + std::to_string(i) + "\n", at);
    ASSERT_NE(at, std::string::npos) << i;
  }
}

TEST(EventLog, AReaderThatStopsHoldsNobodyUp) {
  std::array<int, 2> ends{};
  ASSERT_EQ(pipe(ends.data()), 0);
  const auto begin = std::chrono::steady_clock::now();
  {
    EventLog log(ends[1]);
    // More than the pipe and the queue take.
    for (std::size_t i = 0; i < 3 * EventLog::kMaxQueued; ++i)
      log.info("tick", {{"text", std::string(100, 'x')}});
  }
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(10));
  close(ends[0]);
  close(ends[1]);
}

/// Tells when the writer reads it, as it does to tell of lost lines.
class TellingClock final : public qel::Clock {
 public:
  timeval timeOfDay() const override {
    if (std::this_thread::get_id() != _owner && !_told.exchange(true)) _read.set_value();
    return {0, 0};
  }
  std::int64_t steadyMillis() const override { return 0; }
  bool wait(qel::ZU_ThreadCond&, qel::ZU_ThreadMutex&, int) override { return false; }

  bool awaitRead() {
    return _read.get_future().wait_for(std::chrono::seconds(10)) == std::future_status::ready;
  }

 private:
  const std::thread::id _owner = std::this_thread::get_id();
  mutable std::atomic<bool> _told{false};
  mutable std::promise<void> _read;
};

TEST(EventLog, ALineThatADiskHasNoRoomForIsCountedAndSpoilsNoOther) {
  const tolvar_test::TempDir directory;
  const int file = open(directory.file("log").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
  // A limit on every file stands for a full disk.
  std::signal(SIGXFSZ, SIG_IGN);
  rlimit before{};
  ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &before), 0);
  const rlimit small{20, before.rlim_max};
  ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &small), 0);
  TellingClock clock;
  {
    EventLog log(file, clock);
    log.info("first", {});
    EXPECT_TRUE(clock.awaitRead());
    EXPECT_EQ(setrlimit(RLIMIT_FSIZE, &before), 0);
    log.info("second", {});
  }
  close(file);
  std::istringstream text(tolvar_test::readFile(directory.file("log")));
  std::vector<std::string> lines;
  for (std::string line; std::getline(text, line);) lines.push_back(line);
  ASSERT_EQ(lines.size(), 3u);
  EXPECT_EQ(lines[0], "time=1970-01-01T00:0");
  std::sort(lines.begin() + 1, lines.end());  // which is first depends on when room came
  EXPECT_EQ(lines[1], "time=1970-01-01T00:00:00.000Z level=info event=second");
  EXPECT_EQ(lines[2], "time=1970-01-01T00:00:00.000Z level=warn event=log_lines_lost lines=1");
}

TEST(EventLog, AReaderThatIsGoneDoesNoHarm) {
  std::signal(SIGPIPE, SIG_IGN);
  std::array<int, 2> ends{};
  ASSERT_EQ(pipe(ends.data()), 0);
  close(ends[0]);
  {
    EventLog log(ends[1]);
    log.error("lost", {});
  }
  close(ends[1]);
}

}  // namespace
