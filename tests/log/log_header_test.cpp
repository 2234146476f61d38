#include "log/log_header.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <string>
#include <thread>

#include "tests/support/forked_child.h"

namespace {

using namespace qel;

constexpr timeval kMoment{1700000000, 7890};  // 2023-11-14 22:13:20.007890 UTC

class LogHeader : public testing::Test {
 protected:
  LogHeader() {
    setenv("TZ", "UTC", 1);
    tzset();
  }

  static std::string format(const LogHeaderStyle& style, int level) {
    char head[kLogHeaderBytes];
    const std::size_t length = formatLogHeader(head, style, level, kMoment, 4711);
    EXPECT_EQ(length, std::string(head).size());
    return {head, length};
  }
};

TEST_F(LogHeader, BracketedTimeThenThreadThenLevelEachWithTheSeparator) {
  EXPECT_EQ(format({7, true, "|"}, kLogInfo), "[2023-11-14 22:13:20]|4711|INFO|");
  EXPECT_EQ(format({7, true, " - "}, kLogError), "[2023-11-14 22:13:20] - 4711 - ERROR - ");
}

TEST_F(LogHeader, TimeStandsBareWithoutBrackets) {
  EXPECT_EQ(format({kHeaderTime, false, "|"}, kLogInfo), "2023-11-14 22:13:20|");
  EXPECT_EQ(format({kHeaderTimeMillis, false, "|"}, kLogInfo), "2023-11-14 22:13:20.007|");
}

TEST_F(LogHeader, MillisecondsTakePrecedenceOverSeconds) {
  EXPECT_EQ(format({kHeaderTimeMillis | kHeaderTime, true, "|"}, kLogInfo),
            "[2023-11-14 22:13:20.007]|");
}

TEST_F(LogHeader, EveryBitAddsItsPieceAlone) {
  EXPECT_EQ(format({0, true, "|"}, kLogInfo), "");
  EXPECT_EQ(format({kHeaderThread, true, "|"}, kLogInfo), "4711|");
  EXPECT_EQ(format({kHeaderLevel, true, "|"}, kLogWarn), "WARN|");
}

TEST_F(LogHeader, TimeIsLocal) {
  setenv("TZ", "UTC-8", 1);
  tzset();
  EXPECT_EQ(format({kHeaderTime, true, ""}, kLogInfo), "[2023-11-15 06:13:20]");
}

TEST_F(LogHeader, NamesOfTheLevelsByNumber) {
  const char* expected[] = {"ANY", "NONE_LOG", "ERROR", "WARN", "DEBUG", "INFO"};
  for (int level = 0; level <= 5; ++level) EXPECT_STREQ(logLevelName(level), expected[level]);
  EXPECT_STREQ(logLevelName(-1), "UNKNOWN");
  EXPECT_STREQ(logLevelName(6), "UNKNOWN");
}

TEST_F(LogHeader, OverlongHeaderIsCutAndEndsInsideItsBuffer) {
  const std::string separator(60, '-');
  const std::string whole =
      "[2023-11-14 22:13:20]" + separator + "4711" + separator + "INFO" + separator;
  EXPECT_EQ(format({7, true, separator}, kLogInfo), whole.substr(0, kLogHeaderBytes - 1));
  const std::string huge(5000, '=');
  EXPECT_EQ(format({kHeaderThread, true, huge}, kLogInfo).size(), kLogHeaderBytes - 1);
}

TEST_F(LogHeader, BufferIsZeroBehindTheHeader) {
  char head[kLogHeaderBytes];
  std::fill(std::begin(head), std::end(head), 'x');
  const std::size_t length = formatLogHeader(head, {kHeaderLevel, true, "|"}, kLogInfo, kMoment, 1);
  EXPECT_TRUE(std::all_of(head + length, std::end(head), [](char c) { return c == 0; }));
}

/// A thread that is in the middle of it when the process is copied does not exist in the child.
TEST_F(LogHeader, AChildForkedWhileAnotherThreadMakesOneCanMakeOneToo) {
  constexpr int kForks = 300;
  std::atomic<bool> stop{false};
  std::atomic<std::uint64_t> made{0};
  std::thread other([&] {
    char head[kLogHeaderBytes];
    for (; !stop; ++made) formatLogHeader(head, {kHeaderTime, true, "|"}, kLogInfo, kMoment, 1);
  });
  for (int i = 0; i < kForks && !HasFailure(); ++i) {
    const std::uint64_t before = made;
    while (made == before) std::this_thread::yield();
    EXPECT_TRUE(tolvar_test::endsWellForked([] {
      return format({kHeaderTime, true, "|"}, kLogInfo) == "[2023-11-14 22:13:20]|" ? 0 : 1;
    })) << "child "
        << i;
  }
  stop = true;
  other.join();
}

}  // namespace
