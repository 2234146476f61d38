#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "log/logger.h"
#include "log/logger_thread_group.h"
#include "tests/log/log_probe.h"
#include "tests/support/forked_child.h"
#include "tests/support/temp_dir.h"

namespace {

using namespace qel;
using namespace tolvar_test;

using Logger = ZU_Logger<ZU_DefaultWriteT, ZU_RollBySize>;

/// Set up as the client sets up its log, members in its order.
struct Host {
  Host() = default;
  explicit Host(const std::string& path, int threads = 1) { setUp(path, threads, 52428800); }

  void setUp(const std::string& path, int threads, int maxSize) {
    _local.start(threads);
    _logger.init(path, maxSize, 10);
    _logger.modFlag(1, false);
    _logger.setupThread(&_local);
  }

  Logger _logger;
  ZU_LoggerThreadGroup _local;
};

/// A line that shows on its face whether it is whole.
std::string selfChecking(int thread, int number) {
  const std::string id = std::to_string(thread) + ":" + std::to_string(number);
  return id + std::string(number % 40, '.') + id;
}

void logFromThreads(Logger& logger, int threads, int lines) {
  std::vector<std::thread> callers;
  for (int t = 0; t < threads; ++t) {
    callers.emplace_back([&logger, t, lines] {
      for (int i = 0; i < lines; ++i) {
        const std::string id = std::to_string(t) + ":" + std::to_string(i);
        logger.debug() << t << ':' << i << std::string(i % 40, '.') << id << std::endl;
      }
    });
  }
  for (auto& caller : callers) caller.join();
}

void expectAllInOrder(const std::vector<std::string>& lines, int threads, int perThread) {
  ASSERT_EQ(lines.size(), static_cast<std::size_t>(threads * perThread));
  std::vector<int> next(threads, 0);
  for (const std::string& line : lines) {
    const int thread = std::stoi(line);
    ASSERT_LT(thread, threads);
    ASSERT_EQ(line, selfChecking(thread, next[thread])) << "torn, lost or out of order";
    ++next[thread];
  }
}

TEST(LoggerThreads, LinesOfManyThreadsAreWholeAndInEachThreadsOrder) {
  TempDir dir;
  {
    Host host(dir.file("base"));
    logFromThreads(host._logger, 4, 2000);
  }
  expectAllInOrder(linesOf(readFile(dir.file("base.log"))), 4, 2000);
}

TEST(LoggerThreads, SeveralWritersKeepTheOrderToo) {
  TempDir dir;
  {
    Host host(dir.file("base"), 3);
    logFromThreads(host._logger, 4, 1000);
  }
  expectAllInOrder(linesOf(readFile(dir.file("base.log"))), 4, 1000);
}

TEST(LoggerThreads, WithoutAGroupTheCallersWriteAndTearNothing) {
  TempDir dir;
  Logger logger;
  logger.init(dir.file("base"), 52428800, 10);
  logger.modFlag(1, false);
  logFromThreads(logger, 4, 500);
  expectAllInOrder(linesOf(readFile(dir.file("base.log"))), 4, 500);
}

TEST(LoggerThreads, DestructionWritesEverythingQueuedWhoeverGoesFirst) {
  for (const bool loggerFirst : {false, true}) {
    TempDir dir;
    auto logger = std::make_unique<Logger>();
    auto group = std::make_unique<ZU_LoggerThreadGroup>();
    group->start(1);
    logger->init(dir.file("missing/directory/base"), 52428800, 10);
    logger->modFlag(1, false);
    logger->setupThread(group.get());
    for (int i = 0; i < 1000; ++i) logger->debug() << i << std::endl;
    if (loggerFirst) logger.reset();
    group.reset();
    logger.reset();
    EXPECT_EQ(linesOf(readFile(dir.file("missing/directory/base.log"))).size(), 1000u);
  }
}

TEST(LoggerThreads, FlushReturnsWhenTheLinesAreInTheFile) {
  TempDir dir;
  Host host(dir.file("base"));
  for (int i = 0; i < 100; ++i) {
    host._logger.info() << i << std::endl;
    EXPECT_TRUE(host._local.flush());
    EXPECT_EQ(linesOf(readFile(dir.file("base.log"))).size(), static_cast<std::size_t>(i + 1));
  }
}

TEST(LoggerThreads, AStoppedGroupLeavesWritingToTheCallersUntilItStartsAgain) {
  TempDir dir;
  Host host(dir.file("base"));
  host._logger.info() << "one" << std::endl;
  host._local.stop();
  EXPECT_EQ(readFile(dir.file("base.log")), "one\n");
  host._logger.info() << "two" << std::endl;
  EXPECT_EQ(readFile(dir.file("base.log")), "one\ntwo\n");
  host._local.start(1);
  host._logger.info() << "three" << std::endl;
  host._local.stop();
  host._local.stop();
  EXPECT_EQ(readFile(dir.file("base.log")), "one\ntwo\nthree\n");
}

TEST(LoggerThreads, LinesLoggedWhileTheGroupStopsAreNotLost) {
  TempDir dir;
  Host host(dir.file("base"));
  std::thread restarts([&host] {
    for (int i = 0; i < 50; ++i) {
      host._local.stop();
      host._local.start(1);
    }
  });
  logFromThreads(host._logger, 2, 1000);
  restarts.join();
  host._local.stop();
  expectAllInOrder(linesOf(readFile(dir.file("base.log"))), 2, 1000);
}

TEST(LoggerThreads, SettingUpTwiceWritesOnce) {
  TempDir dir;
  Host host(dir.file("base"));
  host._local.start(1);
  host._logger.init(dir.file("base"), 52428800, 10);
  host._logger.setupThread(&host._local);
  host._logger.info() << "once" << std::endl;
  host._local.stop();
  EXPECT_EQ(readFile(dir.file("base.log")), "once\n");
}

TEST(LoggerThreads, OneGroupServesSeveralLoggers) {
  TempDir dir;
  Host host(dir.file("base"));
  {
    Logger other;
    other.init(dir.file("other"), 52428800, 10);
    other.modFlag(1, false);
    other.setupThread(&host._local);
    for (int i = 0; i < 10; ++i) {
      other.info() << "other" << std::endl;
      host._logger.info() << "base" << std::endl;
    }
  }
  host._local.stop();
  EXPECT_EQ(linesOf(readFile(dir.file("other.log"))), std::vector<std::string>(10, "other"));
  EXPECT_EQ(linesOf(readFile(dir.file("base.log"))), std::vector<std::string>(10, "base"));
}

TEST(LoggerThreads, AForkedChildLogsAndEndsWithoutWaitingForThreadsItDoesNotHave) {
  TempDir dir;
  auto host = std::make_unique<Host>(dir.file("base"));
  host->_logger.info() << "before" << std::endl;
  ASSERT_TRUE(host->_local.flush());
  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    host->_logger.info() << "child" << std::endl;
    host->_local.flush();
    host.reset();
    _exit(0);
  }
  int status = -1;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);
  host->_logger.info() << "after" << std::endl;
  host.reset();
  EXPECT_EQ(readFile(dir.file("base.log")), "before\nchild\nafter\n");
}

TEST(LoggerThreads, ALoggerMadeBeforeAForkAndSetUpInTheChildIsWrittenByItsGroupAndRolls) {
  static std::atomic<pid_t> writer{0};
  const SystemCallsGuard guard;
  guard.calls().write = [](int fd, const void* data, size_t size) {
    writer = gettid();
    return ::write(fd, data, size);
  };
  const TempDir dir;
  auto host = std::make_unique<Host>();
  EXPECT_TRUE(endsWellForked([&] {
    constexpr int kMaxSize = 1000;
    host->setUp(dir.file("base"), 1, kMaxSize);
    host->_logger.info() << std::string(kMaxSize, 'x') << std::endl;
    while (writer == 0) std::this_thread::yield();
    if (writer == gettid()) return 1;
    host.reset();
    return exists(dir.file("base1.log")) ? 0 : 2;
  }));
}

TEST(LoggerThreads, ALoggerThatWasInUseAtAForkIsSetUpInTheChildWithoutWaitingForItsLocks) {
  static std::atomic<bool> writing{false};
  static std::atomic<bool> hold{true};
  const SystemCallsGuard guard;
  guard.calls().write = [](int fd, const void* data, size_t size) {
    writing = true;
    while (hold) std::this_thread::yield();
    return ::write(fd, data, size);
  };
  const TempDir dir;
  auto host = std::make_unique<Host>(dir.file("base"));
  host->_logger.info() << "parent" << std::endl;
  while (!writing) std::this_thread::yield();
  EXPECT_TRUE(endsWellForked([&] {
    hold = false;
    host->_logger.setupThread(&host->_local);
    host->_logger.info() << "child" << std::endl;
    host.reset();
    return 0;
  }));
  hold = false;
  host.reset();
  EXPECT_EQ(readFile(dir.file("base.log")), "child\nparent\n");
}

}  // namespace
