#include "log/roll_by_size.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <map>
#include <string>
#include <vector>

#include "platform/file.h"
#include "tests/log/log_probe.h"
#include "tests/support/manual_clock.h"
#include "tests/support/temp_dir.h"

namespace {

using namespace qel;
using namespace tolvar_test;

class RollBySize : public testing::Test {
 protected:
  RollBySize() { roller.setClock(clock); }

  void init(int maxSize, int maxNum) { roller.init(dir.file("base"), maxSize, maxNum); }

  void expectOpenFailure(LogBatch& batch, const std::string& name, int error) {
    try {
      roller.roll(batch);
      ADD_FAILURE() << "no exception";
    } catch (const LoggerException& e) {
      EXPECT_EQ(e.what(), "[ZU_RollBySize::roll]:fopen fail: " + name);
      EXPECT_EQ(e.getErrCode(), error);
    }
  }

  void write(const std::string& line) {
    LogBatch batch = batchOf({line});
    roller.roll(batch);
    EXPECT_TRUE(batch.empty());
  }

  /// Writes a line on a re-check round.
  void writeLater(const std::string& line) {
    clock.advance(6000);
    write(line);
  }

  std::string file(const std::string& suffix) const { return dir.file("base" + suffix); }
  std::string content(const std::string& suffix) const { return readFile(file(suffix)); }

  TempDir dir;
  ManualClock clock;
  ZU_RollBySize roller{&ZU_DefaultWriteT::write};
};

TEST_F(RollBySize, WritesABatchInOrderAndEmptiesIt) {
  init(1000, 10);
  LogBatch batch = batchOf({"one", "two", "three"});
  roller.roll(batch);
  EXPECT_TRUE(batch.empty());
  EXPECT_EQ(content(".log"), "one\ntwo\nthree\n");
}

TEST_F(RollBySize, AppendsToAFileThatExists) {
  writeFile(file(".log"), "before\n");
  init(1000, 10);
  write("after");
  EXPECT_EQ(content(".log"), "before\nafter\n");
}

TEST_F(RollBySize, NextRecheckRenamesAFileBeyondTheLimitToNumberOne) {
  init(4, 10);
  clock.stepWall(-1700000000000);  // so that the first batch is no re-check round
  write("long enough");
  clock.stepWall(3000);
  write("still here");
  EXPECT_FALSE(exists(file("1.log")));
  clock.stepWall(3000);
  write("last");
  EXPECT_EQ(content("1.log"), "long enough\nstill here\nlast\n");
  EXPECT_EQ(content(".log"), "");
}

TEST_F(RollBySize, TenFilesAreShiftedAndNumberNineIsRemoved) {
  init(1, 10);
  for (int i = 1; i <= 12; ++i) writeLater("line " + std::to_string(i));
  EXPECT_EQ(content(".log"), "");
  for (int i = 1; i <= 9; ++i)
    EXPECT_EQ(content(std::to_string(i) + ".log"), "line " + std::to_string(13 - i) + "\n");
  EXPECT_FALSE(exists(file("0.log")));
  EXPECT_FALSE(exists(file("10.log")));
}

TEST_F(RollBySize, AGapInTheNumbersIsKept) {
  init(1, 4);
  writeFile(file("2.log"), "two\n");
  writeLater("new");
  EXPECT_EQ(content("1.log"), "new\n");
  EXPECT_FALSE(exists(file("2.log")));
  EXPECT_EQ(content("3.log"), "two\n");
}

TEST_F(RollBySize, FileBelowTheLimitStays) {
  init(5, 10);
  writeLater("abc");
  EXPECT_FALSE(exists(file("1.log")));
  writeLater("");
  EXPECT_EQ(content("1.log"), "abc\n\n");
}

TEST_F(RollBySize, SizeIsNotExaminedFiveSecondsAfterARecheck) {
  init(10, 10);
  writeLater("a");
  clock.advance(5000);
  write("far beyond the limit");
  EXPECT_FALSE(exists(file("1.log")));
  clock.advance(1000);
  write("b");
  EXPECT_EQ(content("1.log"), "a\nfar beyond the limit\nb\n");
}

TEST_F(RollBySize, ClockBackwardsReopensButDoesNotRoll) {
  init(1, 10);
  writeLater("x");
  ASSERT_EQ(content("1.log"), "x\n");
  ASSERT_EQ(rename(file(".log").c_str(), file(".moved").c_str()), 0);
  clock.stepWall(-86400000);
  write("after the step");
  EXPECT_EQ(content(".log"), "after the step\n");
  EXPECT_EQ(content("1.log"), "x\n");
  EXPECT_FALSE(exists(file("2.log")));
}

TEST_F(RollBySize, FileRemovedFromOutsideIsCreatedAgainAtTheRecheck) {
  init(1000, 10);
  writeLater("one");
  ASSERT_EQ(unlink(file(".log").c_str()), 0);
  clock.advance(5000);
  write("goes to the removed file");
  EXPECT_FALSE(exists(file(".log")));
  clock.advance(1000);
  write("two");
  EXPECT_EQ(content(".log"), "two\n");
}

TEST_F(RollBySize, MissingDirectoryIsCreatedTheCallThrowsAndTheNextOneWrites) {
  const mode_t before = umask(022);
  roller.init(dir.file("a/b/base"), 1000, 10);
  LogBatch batch = batchOf({"kept"});
  expectOpenFailure(batch, dir.file("a/b/base.log"), ENOENT);
  umask(before);
  EXPECT_EQ(batch.size(), 1u);
  struct stat found {};
  for (const char* created : {"a", "a/b"}) {
    ASSERT_EQ(stat(dir.file(created).c_str(), &found), 0);
    EXPECT_EQ(found.st_mode & 07777, 0755u);
  }
  roller.roll(batch);
  EXPECT_EQ(readFile(dir.file("a/b/base.log")), "kept\n");
}

TEST_F(RollBySize, ADirectoryThatMayNotBeMadeIsTheCauseThatIsTold) {
  const SystemCallsGuard guard;
  guard.calls().mkdir = [](const char* path, mode_t) {
    errno = ZU_File::isDirectory(path) ? EEXIST : EACCES;
    return -1;
  };
  roller.init(dir.file("a/b/base"), 1000, 10);
  LogBatch batch = batchOf({"kept"});
  expectOpenFailure(batch, dir.file("a/b/base.log"), EACCES);
  EXPECT_EQ(batch.size(), 1u);
}

TEST_F(RollBySize, UnopenableFileThrowsWithNameAndErrno) {
  ASSERT_EQ(mkdir(file(".log").c_str(), 0755), 0);
  init(1000, 10);
  LogBatch batch = batchOf({"kept"});
  expectOpenFailure(batch, file(".log"), EISDIR);
  EXPECT_EQ(batch.size(), 1u);
}

TEST_F(RollBySize, FailureToReopenAfterARollDoesNotRepeatTheBatch) {
  const SystemCallsGuard guard;
  static int opens = 0;
  opens = 0;
  guard.calls().open = [](const char* path, int flags, mode_t mode) {
    if (++opens != 2) return ::open(path, flags, mode);
    errno = EMFILE;
    return -1;
  };
  init(1, 10);
  LogBatch batch = batchOf({"once"});
  EXPECT_THROW(roller.roll(batch), LoggerException);
  EXPECT_TRUE(batch.empty());
  write("again");
  EXPECT_EQ(content("1.log"), "once\n");
  EXPECT_EQ(content(".log"), "again\n");
}

TEST_F(RollBySize, NumbersBelowOneAreRefused) {
  EXPECT_THROW(init(0, 10), LoggerException);
  EXPECT_THROW(init(1000, 0), LoggerException);
  EXPECT_THROW(init(-1, -1), LoggerException);
}

TEST_F(RollBySize, MovesOnToAnotherPath) {
  init(1000, 10);
  write("here");
  roller.init(dir.file("other"), 1000, 10);
  write("there");
  EXPECT_EQ(content(".log"), "here\n");
  EXPECT_EQ(readFile(dir.file("other.log")), "there\n");
}

TEST_F(RollBySize, AFileThatCannotBeMovedIsNotOverwritten) {
  const SystemCallsGuard guard;
  static std::string stuck;
  stuck = file("1.log");
  guard.calls().rename = [](const char* from, const char* to) {
    if (from != stuck) return ::rename(from, to);
    errno = EACCES;
    return -1;
  };
  writeFile(file("1.log"), "old\n");
  init(1, 10);
  writeLater("new");
  EXPECT_EQ(content("1.log"), "old\n");
  EXPECT_EQ(content(".log"), "new\n");
}

TEST_F(RollBySize, AFileThatCannotBeMovedIsToldOfOnce) {
  const SystemCallsGuard guard;
  static bool refuse;
  refuse = true;
  guard.calls().rename = [](const char* from, const char* to) {
    if (!refuse) return ::rename(from, to);
    errno = EACCES;
    return -1;
  };
  init(1, 10);
  testing::internal::CaptureStderr();
  writeLater("one");
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "[ZU_RollBySize::roll]: cannot rename " + file(".log") +
                " (Permission denied); it grows beyond 1 bytes\n");
  testing::internal::CaptureStderr();
  writeLater("two");
  refuse = false;
  writeLater("three");
  EXPECT_EQ(content("1.log"), "one\ntwo\nthree\n");
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

TEST_F(RollBySize, DoesNotRollAgainWhatAnotherProcessHasJustRolled) {
  const SystemCallsGuard guard;
  static std::string from, to;
  from = file(".log");
  to = file("1.log");
  guard.calls().flock = [](int, int) {
    // The other process renames between our look at the size and our lock.
    return ::rename(from.c_str(), to.c_str());
  };
  init(1, 3);
  writeLater("precious");
  EXPECT_EQ(content("1.log"), "precious\n");
  EXPECT_FALSE(exists(file("2.log")));
  write("next");
  EXPECT_EQ(content(".log"), "next\n");
}

TEST_F(RollBySize, LeavesRollingToTheProcessThatIsAtIt) {
  const SystemCallsGuard guard;
  guard.calls().flock = [](int, int) {
    errno = EWOULDBLOCK;
    return -1;
  };
  init(1, 3);
  writeLater("a");
  EXPECT_FALSE(exists(file("1.log")));
  write("b");
  EXPECT_EQ(content(".log"), "a\nb\n");
}

TEST_F(RollBySize, RollsWhereTheFileSystemKnowsNoLocks) {
  const SystemCallsGuard guard;
  guard.calls().flock = [](int, int) {
    errno = ENOLCK;
    return -1;
  };
  init(1, 3);
  writeLater("a");
  EXPECT_EQ(content("1.log"), "a\n");
}

/// One of several processes: every batch is a re-check round and the limit is soon reached.
void writeManyBatches(const std::string& path, int process) {
  ManualClock clock;
  ZU_RollBySize roller{&ZU_DefaultWriteT::write};
  roller.setClock(clock);
  roller.init(path, 2000, 60);
  for (int i = 0; i < 300; ++i) {
    clock.advance(6000);
    const std::string name = std::to_string(process) + "-" + std::to_string(i);
    LogBatch batch = batchOf({name + "-a", name + "-b" + std::string(i % 90, '.')});
    while (!batch.empty()) roller.roll(batch);
  }
}

TEST_F(RollBySize, ProcessesThatRollOnePathLoseAndTearNothing) {
  std::vector<pid_t> children;
  for (int process = 0; process < 4; ++process) {
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
      writeManyBatches(file(""), process);
      _exit(0);
    }
    children.push_back(child);
  }
  for (const pid_t child : children) {
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
  }
  std::map<std::string, int> seen;
  int files = 0;
  for (; files == 0 || exists(file(std::to_string(files) + ".log")); ++files) {
    const std::string name = files == 0 ? ".log" : std::to_string(files) + ".log";
    for (const std::string& line : linesOf(content(name))) ++seen[line];
  }
  EXPECT_GT(files, 2) << "this was to be about rolling";
  EXPECT_EQ(seen.size(), 2400u);
  for (int process = 0; process < 4; ++process) {
    for (int i = 0; i < 300; ++i) {
      const std::string name = std::to_string(process) + "-" + std::to_string(i);
      EXPECT_EQ(seen[name + "-a"], 1) << name;
      EXPECT_EQ(seen[name + "-b" + std::string(i % 90, '.')], 1) << name;
    }
  }
}

}  // namespace
