#include "tools/tolvard/serve/event_log.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <csignal>

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
