#include "platform/thread.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <functional>
#include <stdexcept>
#include <string>
#include <utility>

#include "platform/exception.h"
#include "tests/support/system_calls_guard.h"

namespace {

using qel::ZU_Exception;
using qel::ZU_Monitor;
using qel::ZU_Thread;
using qel::ZU_ThreadCond;
using qel::ZU_ThreadControl;
using qel::ZU_ThreadMutex;

/// A thread whose body is given.
class BodyThread final : public ZU_Thread {
 public:
  explicit BodyThread(std::function<void()> body) : _body(std::move(body)) {}
  ~BodyThread() override { getThreadControl().join(); }

 private:
  void run() override { _body(); }

  const std::function<void()> _body;
};

/// Holds threads back until it is opened.
class Gate {
 public:
  void pass() {
    Monitor::Lock hold(_monitor);
    while (!_open) _monitor.timedWait(1000);
  }
  void open() {
    Monitor::Lock hold(_monitor);
    _open = true;
    _monitor.notifyAll();
  }

 private:
  using Monitor = ZU_Monitor<ZU_ThreadMutex, ZU_ThreadCond>;
  Monitor _monitor;
  bool _open = false;
};

TEST(Thread, RunsTheBodyOnAThreadOfItsOwn) {
  pthread_t seen{};
  BodyThread thread([&] { seen = pthread_self(); });
  EXPECT_FALSE(thread.isAlive());
  thread.start().join();
  EXPECT_FALSE(thread.isAlive());
  EXPECT_FALSE(pthread_equal(seen, pthread_self()));
}

TEST(Thread, JoinWaitsForTheEnd) {
  Gate gate;
  bool finished = false;
  BodyThread thread([&] {
    gate.pass();
    finished = true;
  });
  ZU_ThreadControl control = thread.start();
  EXPECT_TRUE(thread.isAlive());
  gate.open();
  control.join();
  EXPECT_TRUE(finished);
  EXPECT_FALSE(thread.isAlive());
}

TEST(Thread, ASecondJoinReturnsAtOnce) {
  BodyThread thread([] {});
  ZU_ThreadControl control = thread.start();
  control.join();
  control.join();
  thread.getThreadControl().join();
}

TEST(Thread, JoinOfNoThreadReturnsAtOnce) {
  ZU_ThreadControl control;
  control.join();
  BodyThread thread([] {});
  thread.getThreadControl().join();
}

TEST(Thread, SeveralThreadsMayJoinOne) {
  Gate gate;
  BodyThread thread([&] { gate.pass(); });
  const ZU_ThreadControl control = thread.start();
  std::atomic<int> joined{0};
  BodyThread first([&, copy = control]() mutable {
    copy.join();
    ++joined;
  });
  BodyThread second([&, copy = control]() mutable {
    copy.join();
    ++joined;
  });
  ZU_ThreadControl firstControl = first.start();
  ZU_ThreadControl secondControl = second.start();
  gate.open();
  firstControl.join();
  secondControl.join();
  EXPECT_EQ(joined, 2);
}

TEST(Thread, AnExceptionEndsTheThreadOnly) {
  BodyThread standard([] { throw std::runtime_error("body"); });
  standard.start().join();
  EXPECT_FALSE(standard.isAlive());
  BodyThread foreign([] { throw 42; });
  foreign.start().join();
  EXPECT_FALSE(foreign.isAlive());
}

TEST(Thread, ABodyMayLeaveThroughPthreadExit) {
  BodyThread thread([] { pthread_exit(nullptr); });
  thread.start().join();
  EXPECT_FALSE(thread.isAlive());
}

TEST(Thread, StartsAgainAfterItsEndButNotBefore) {
  Gate gate;
  std::atomic<int> runs{0};
  BodyThread thread([&] {
    gate.pass();
    ++runs;
  });
  ZU_ThreadControl control = thread.start();
  try {
    thread.start();
    ADD_FAILURE() << "a second thread was started";
  } catch (const ZU_Exception& refused) {
    EXPECT_STREQ(refused.what(), "[ZU_Thread::start]: the thread is already running");
  }
  gate.open();
  control.join();
  EXPECT_EQ(runs, 1);
  thread.start().join();
  EXPECT_EQ(runs, 2);
}

TEST(Thread, AFailedStartIsReportedAndCanBeRepeated) {
  bool ran = false;
  BodyThread thread([&] { ran = true; });
  {
    tolvar_test::SystemCallsGuard guard;
    guard.calls().pthreadCreate = [](pthread_t*, const pthread_attr_t*, void* (*)(void*), void*) {
      return EAGAIN;
    };
    try {
      thread.start();
      ADD_FAILURE() << "start did not fail";
    } catch (const ZU_Exception& failure) {
      EXPECT_STREQ(failure.what(),
                   "[ZU_Thread::start]: pthread_create failed (errno 11: Resource temporarily "
                   "unavailable)");
      EXPECT_EQ(failure.getErrCode(), EAGAIN);
    }
    EXPECT_FALSE(thread.isAlive());
    thread.getThreadControl().join();
  }
  thread.start().join();
  EXPECT_TRUE(ran);
}

TEST(Thread, SignalsStayWithTheHostsThreads) {
  sigset_t inside, before, after;
  sigemptyset(&inside);
  pthread_sigmask(SIG_SETMASK, nullptr, &before);
  BodyThread thread([&] { pthread_sigmask(SIG_SETMASK, nullptr, &inside); });
  thread.start().join();
  pthread_sigmask(SIG_SETMASK, nullptr, &after);
  for (const int number : {SIGINT, SIGTERM, SIGHUP, SIGUSR1, SIGALRM, SIGCHLD}) {
    EXPECT_TRUE(sigismember(&inside, number)) << number;
    EXPECT_EQ(sigismember(&after, number), sigismember(&before, number)) << number;
  }
}

TEST(Thread, JoinInAForkedChildReturnsAtOnce) {
  Gate gate;
  BodyThread thread([&] { gate.pass(); });
  ZU_ThreadControl control = thread.start();
  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    alarm(20);  // A join that waits is ended from outside and shows as a signal.
    control.join();
    _exit(7);
  }
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 7);
  gate.open();
  control.join();
}

TEST(Mutex, KeepsThreadsApart) {
  ZU_ThreadMutex mutex;
  long counter = 0;
  const auto body = [&] {
    for (int i = 0; i < 20000; ++i) {
      mutex.lock();
      ++counter;
      mutex.unlock();
    }
  };
  BodyThread first(body), second(body);
  ZU_ThreadControl firstControl = first.start();
  ZU_ThreadControl secondControl = second.start();
  firstControl.join();
  secondControl.join();
  EXPECT_EQ(counter, 40000);
}

TEST(Mutex, TryLockTellsWhetherItIsHeld) {
  ZU_ThreadMutex mutex;
  ASSERT_TRUE(mutex.try_lock());
  bool taken = true;
  BodyThread([&] { taken = mutex.try_lock(); }).start().join();
  EXPECT_FALSE(taken);
  mutex.unlock();
  ASSERT_TRUE(mutex.try_lock());
  mutex.unlock();
}

}  // namespace
