#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <string>

#include "log/logger.h"
#include "tests/log/log_probe.h"
#include "tests/support/manual_clock.h"
#include "tests/support/temp_dir.h"

/// The log on bad days: a full disk, short writes, a path that cannot be written.
namespace {

using namespace qel;
using namespace tolvar_test;

using Logger = ZU_Logger<ZU_DefaultWriteT, ZU_RollBySize>;

/// A disk with room for so many bytes.
std::atomic<std::size_t> diskRoom{0};

ssize_t writeToSmallDisk(int fd, const void* data, size_t size) {
  const std::size_t room = std::min<std::size_t>(diskRoom, size);
  if (room == 0 && size != 0) {
    errno = ENOSPC;
    return -1;
  }
  const ssize_t written = ::write(fd, data, room);
  if (written > 0) diskRoom -= static_cast<std::size_t>(written);
  return written;
}

std::string numberedLines(int begin, int end) {
  std::string text;
  for (int i = begin; i < end; ++i) text += "line " + std::to_string(i) + "\n";
  return text;
}

TEST(RollFaults, ShortWritesAreCompleted) {
  const SystemCallsGuard guard;
  guard.calls().write = [](int fd, const void* data, size_t size) {
    return ::write(fd, data, std::min<std::size_t>(size, 3));
  };
  TempDir dir;
  ZU_RollBySize roller(&ZU_DefaultWriteT::write);
  roller.init(dir.file("base"), 1000, 10);
  LogBatch batch = batchOf({"some words", "more words"});
  roller.roll(batch);
  EXPECT_EQ(readFile(dir.file("base.log")), "some words\nmore words\n");
}

TEST(RollFaults, InterruptedWritesAreRepeated) {
  const SystemCallsGuard guard;
  static int calls = 0;
  calls = 0;
  guard.calls().write = [](int fd, const void* data, size_t size) -> ssize_t {
    if (++calls % 2 == 0) return ::write(fd, data, std::min<std::size_t>(size, 4));
    errno = EINTR;
    return -1;
  };
  TempDir dir;
  ZU_RollBySize roller(&ZU_DefaultWriteT::write);
  roller.init(dir.file("base"), 1000, 10);
  LogBatch batch = batchOf({"some words"});
  roller.roll(batch);
  EXPECT_EQ(readFile(dir.file("base.log")), "some words\n");
}

TEST(RollFaults, FullDiskKeepsExactlyTheUnwrittenLines) {
  const SystemCallsGuard guard;
  guard.calls().write = &writeToSmallDisk;
  TempDir dir;
  ZU_RollBySize roller(&ZU_DefaultWriteT::write);
  roller.init(dir.file("base"), 1000, 10);
  diskRoom = 12;  // one line and the first five bytes of the next
  LogBatch batch = batchOf({"line 1", "line 2", "line 3"});
  try {
    roller.roll(batch);
    ADD_FAILURE() << "no exception";
  } catch (const LoggerException& e) {
    EXPECT_EQ(e.what(), "[ZU_RollBySize::roll]:write fail: " + dir.file("base.log"));
    EXPECT_EQ(e.getErrCode(), ENOSPC);
  }
  ASSERT_EQ(batch.size(), 2u);
  EXPECT_EQ(batch.front().second, "line 2\n");
  EXPECT_EQ(readFile(dir.file("base.log")), "line 1\n") << "no half line stays behind";
  diskRoom = 1000;
  roller.roll(batch);
  EXPECT_TRUE(batch.empty());
  EXPECT_EQ(readFile(dir.file("base.log")), "line 1\nline 2\nline 3\n");
}

TEST(RollFaults, HalfALineIsNotTakenBackOnceSomebodyAppendedBehindIt) {
  const SystemCallsGuard guard;
  static std::string path;
  TempDir dir;
  path = dir.file("base.log");
  diskRoom = 5;
  guard.calls().write = [](int fd, const void* data, size_t size) {
    const ssize_t written = writeToSmallDisk(fd, data, size);
    if (written < 0) {
      const int other = ::open(path.c_str(), O_WRONLY | O_APPEND);
      EXPECT_EQ(::write(other, "other\n", 6), 6);
      ::close(other);
      errno = ENOSPC;
    }
    return written;
  };
  ZU_RollBySize roller(&ZU_DefaultWriteT::write);
  roller.init(dir.file("base"), 1000, 10);
  LogBatch batch = batchOf({"mine is long"});
  EXPECT_THROW(roller.roll(batch), LoggerException);
  diskRoom = 1000;
  roller.roll(batch);
  EXPECT_EQ(readFile(path), "mine other\nmine is long\n");
}

/// A logger with a writer thread on a clock of the test's.
class LoggerFaults : public testing::Test {
 protected:
  void open(const std::string& path) {
    group.start(1);
    logger.setClock(clock);
    logger.init(path, 52428800, 10);
    logger.modFlag(kHeaderTime, false);
    logger.setupThread(&group);
  }

  void log(int begin, int end) {
    for (int i = begin; i < end; ++i) logger.info() << "line " << i << std::endl;
  }

  const SystemCallsGuard guard;
  TempDir dir;
  ManualClock clock;
  Logger logger;
  ZU_LoggerThreadGroup group{clock};
};

TEST_F(LoggerFaults, FullDiskThenRoomAgainLosesNothing) {
  guard.calls().write = &writeToSmallDisk;
  diskRoom = 100;
  open(dir.file("base"));
  testing::internal::CaptureStderr();
  log(0, 500);
  clock.awaitWaiters(1);  // the writer has failed and waits for its next try
  log(500, 600);
  EXPECT_FALSE(group.flush());
  diskRoom = 1000000;
  EXPECT_TRUE(group.flush());
  EXPECT_EQ(readFile(dir.file("base.log")), numberedLines(0, 600));
  group.stop();
  const std::string complaint = testing::internal::GetCapturedStderr();
  EXPECT_NE(complaint.find("write fail: " + dir.file("base.log") + " (No space left on device)"),
            std::string::npos)
      << complaint;
  EXPECT_EQ(std::count(complaint.begin(), complaint.end(), '\n'), 1) << complaint;
}

TEST_F(LoggerFaults, WriterTriesAgainByItselfWhenTheDirectoryCanBeMade) {
  writeFile(dir.file("in the way"), "");
  open(dir.file("in the way/base"));
  testing::internal::CaptureStderr();
  log(0, 3);
  clock.awaitWaiters(1);
  ASSERT_EQ(unlink(dir.file("in the way").c_str()), 0);
  clock.advance(ZU_LoggerThreadGroup::kRetryMillis);
  group.stop();
  testing::internal::GetCapturedStderr();
  EXPECT_EQ(readFile(dir.file("in the way/base.log")), numberedLines(0, 3));
}

TEST_F(LoggerFaults, ComplainsOnceInAWhile) {
  writeFile(dir.file("file"), "");
  testing::internal::CaptureStderr();
  open(dir.file("file/base"));
  log(0, 1);
  clock.awaitWaiters(1);
  for (int i = 0; i < 50; ++i) EXPECT_FALSE(group.flush());
  clock.stepWall(86400000);
  EXPECT_FALSE(group.flush());
  const std::string first = testing::internal::GetCapturedStderr();
  EXPECT_EQ(std::count(first.begin(), first.end(), '\n'), 1) << first;
  EXPECT_NE(first.find("fopen fail: " + dir.file("file/base.log") + " (Not a directory)"),
            std::string::npos)
      << first;

  testing::internal::CaptureStderr();
  clock.advance(LogChannel::kComplaintIntervalMillis);
  EXPECT_FALSE(group.flush());
  const std::string second = testing::internal::GetCapturedStderr();
  EXPECT_EQ(std::count(second.begin(), second.end(), '\n'), 1) << second;

  // Leaves quietly: the line is not lost after all.
  ASSERT_EQ(unlink(dir.file("file").c_str()), 0);
  EXPECT_TRUE(group.flush());
}

TEST_F(LoggerFaults, LinesThatCannotBeWrittenToTheEndAreCountedOnStandardError) {
  writeFile(dir.file("file"), "");
  testing::internal::CaptureStderr();
  {
    Logger shortLived;
    shortLived.init(dir.file("file/base"), 1000, 2);
    shortLived.info() << "one" << std::endl;
    shortLived.info() << "two" << std::endl;
  }
  const std::string said = testing::internal::GetCapturedStderr();
  EXPECT_NE(said.find("the log ends with 2 lines that could not be written"), std::string::npos)
      << said;
}

TEST_F(LoggerFaults, QueueIsBoundedAndALineTellsHowManyWereDropped) {
  writeFile(dir.file("file"), "");
  testing::internal::CaptureStderr();
  open(dir.file("file/base"));
  logger.modFlag(kHeaderLevel, true);
  log(0, 1);
  clock.awaitWaiters(1);  // holds line 0; the queue is empty
  const int room = static_cast<int>(LogChannel::kMaxLines);
  log(1, 1 + room + 7);
  ASSERT_EQ(unlink(dir.file("file").c_str()), 0);
  EXPECT_TRUE(group.flush());
  log(-2, 0);
  group.stop();
  testing::internal::GetCapturedStderr();
  const auto lines = linesOf(readFile(dir.file("file/base.log")));
  ASSERT_EQ(lines.size(), static_cast<std::size_t>(room) + 4);
  for (int i = 0; i <= room; ++i) ASSERT_EQ(lines[i], "INFO|line " + std::to_string(i));
  EXPECT_EQ(lines[room + 1], "WARN|log queue full, 7 lines dropped here");
  EXPECT_EQ(lines[room + 2], "INFO|line -2");
  EXPECT_EQ(lines[room + 3], "INFO|line -1");
}

TEST_F(LoggerFaults, AGroupWithoutThreadsLeavesWritingToTheCallers) {
  guard.calls().pthreadCreate = [](pthread_t*, const pthread_attr_t*, void* (*)(void*), void*) {
    return EAGAIN;
  };
  EXPECT_THROW(open(dir.file("base")), ZU_Exception);
  logger.init(dir.file("base"), 1000, 10);
  logger.modFlag(kHeaderTime, false);
  logger.setupThread(&group);
  log(0, 2);
  EXPECT_EQ(readFile(dir.file("base.log")), numberedLines(0, 2));
}

}  // namespace
