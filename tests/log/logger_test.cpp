#include "log/logger.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <iomanip>
#include <optional>
#include <string>
#include <utility>

#include "tests/log/log_probe.h"
#include "tests/support/manual_clock.h"
#include "tests/support/temp_dir.h"

namespace {

using namespace qel;
using tolvar_test::ManualClock;
using tolvar_test::readFile;
using tolvar_test::TempDir;

using Logger = ZU_Logger<ZU_DefaultWriteT, ZU_RollBySize>;

class LoggerTest : public testing::Test {
 protected:
  LoggerTest() {
    setenv("TZ", "UTC", 1);
    tzset();
    logger.setClock(clock);
    logger.init(dir.file("Tolvar.API"), 52428800, 10);
    logger.modFlag(kHeaderTime, false);
  }

  std::string written() const { return readFile(dir.file("Tolvar.API.log")); }

  TempDir dir;
  ManualClock clock;
  Logger logger;
};

TEST_F(LoggerTest, InfoIsNotWrittenByALoggerSetToDebug) {
  logger.setLogLevel(kLogDebug);
  logger.info() << "an info line" << std::endl;
  logger.debug() << "a debug line" << std::endl;
  EXPECT_EQ(written(), "a debug line\n");
}

TEST_F(LoggerTest, EveryLevelIsWrittenAtFirst) {
  logger.modFlag(kHeaderLevel, true);
  logger.any() << "a" << std::endl;
  logger.error() << "b" << std::endl;
  logger.warn() << "c" << std::endl;
  logger.debug() << "d" << std::endl;
  logger.info() << "e" << std::endl;
  logger.log(kLogNone) << "f" << std::endl;
  EXPECT_EQ(written(), "ANY|a\nERROR|b\nWARN|c\nDEBUG|d\nINFO|e\nNONE_LOG|f\n");
}

TEST_F(LoggerTest, BitsOneTwoAndFourGiveTimeThreadAndLevel) {
  logger.modFlag(1, false);
  logger.modFlag(7, true);
  logger.debug() << "current" << std::endl;
  EXPECT_EQ(written(), "[2023-11-14 22:13:20]|" + std::to_string(gettid()) + "|DEBUG|current\n");
}

TEST_F(LoggerTest, FlagsAreSetAndTestedByMask) {
  EXPECT_FALSE(logger.hasFlag(1));
  logger.modFlag(6, true);
  EXPECT_TRUE(logger.hasFlag(2));
  EXPECT_TRUE(logger.hasFlag(6));
  EXPECT_FALSE(logger.hasFlag(7));
  logger.modFlag(2, false);
  EXPECT_FALSE(logger.hasFlag(2));
  EXPECT_TRUE(logger.hasFlag(4));
}

TEST_F(LoggerTest, StartsWithTimeOnlyInBracketsAndWithoutMilliseconds) {
  const Logger fresh;
  EXPECT_TRUE(fresh.hasFlag(kHeaderTime));
  EXPECT_FALSE(fresh.hasFlag(kHeaderThread));
  EXPECT_FALSE(fresh.hasFlag(kHeaderLevel));
  EXPECT_FALSE(fresh.hasFlag(kHeaderTimeMillis));
  EXPECT_EQ(fresh.getLogLevel(), kLogInfo);
}

TEST_F(LoggerTest, BracketsAndSeparatorCanBeChanged) {
  logger.modFlag(kHeaderTimeMillis | kHeaderLevel, true);
  logger.setBrackets(false);
  logger.setSeparator(" ");
  logger.info() << "x" << std::endl;
  EXPECT_EQ(written(), "2023-11-14 22:13:20.000 INFO x\n");
}

TEST_F(LoggerTest, MissingLineEndIsAdded) {
  logger.info() << "one";
  logger.info() << "two\n";
  EXPECT_EQ(written(), "one\ntwo\n");
}

TEST_F(LoggerTest, TakesManipulatorsAndForgetsThemWithTheLine) {
  logger.info() << std::hex << 255 << ' ' << std::setw(4) << std::setfill('0') << 7 << std::endl;
  logger.info() << 255 << std::endl;
  EXPECT_EQ(written(), "ff 0007\n255\n");
}

struct Chatty {
  Logger& logger;
};
std::ostream& operator<<(std::ostream& out, const Chatty& chatty) {
  chatty.logger.info() << "inner" << std::endl;
  return out << "outer";
}

TEST_F(LoggerTest, ComposingOneLineMayLogAnother) {
  logger.info() << "begin " << Chatty{logger} << " end" << std::endl;
  EXPECT_EQ(written(), "inner\nbegin outer end\n");
}

TEST_F(LoggerTest, DiscardingStreamEvaluatesNothing) {
  logger.setLogLevel(kLogError);
  EXPECT_FALSE(logger.info().isOpen());
  EXPECT_TRUE(logger.error().isOpen());
  logger.info() << Chatty{logger} << std::endl;
  EXPECT_EQ(written(), "\n");
}

TEST_F(LoggerTest, AMovedStreamWritesItsLineOnce) {
  {
    LoggerStream first = logger.info();
    first << "one ";
    LoggerStream second = std::move(first);
    second << "line" << std::endl;
  }
  EXPECT_EQ(written(), "one line\n");
}

TEST_F(LoggerTest, WithoutAPathLinesGoToStandardOutput) {
  Logger bare;
  bare.modFlag(kHeaderTime, false);
  testing::internal::CaptureStdout();
  bare.info() << "to the terminal" << std::endl;
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "to the terminal\n");
}

TEST_F(LoggerTest, MissingDirectoriesAreCreatedAndTheFirstLineIsKept) {
  logger.init(dir.file("Tolvar/API/Tolvar.API"), 52428800, 10);
  logger.info() << "first" << std::endl;
  EXPECT_EQ(readFile(dir.file("Tolvar/API/Tolvar.API.log")), "first\n");
}

TEST_F(LoggerTest, AStreamThatOutlivesItsLoggerIsHarmless) {
  std::optional<LoggerStream> stream;
  {
    Logger shortLived;
    shortLived.init(dir.file("short"), 1000, 2);
    stream.emplace(shortLived.info());
  }
  *stream << "nobody listens" << std::endl;
  stream.reset();
  EXPECT_FALSE(tolvar_test::exists(dir.file("short.log")));
}

}  // namespace
