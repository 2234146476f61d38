#include "src/side_task.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <new>
#include <thread>

#include "tests/support/system_calls_guard.h"

namespace {

using tolvar::SideTask;

TEST(SideTask, WorksOnAThreadOfItsOwn) {
  std::thread::id worker;
  int runs = 0;
  SideTask task([&] {
    worker = std::this_thread::get_id();
    ++runs;
  });
  task.finish();
  task.finish();
  EXPECT_EQ(runs, 1);
  EXPECT_NE(worker, std::this_thread::get_id());
}

TEST(SideTask, WithoutASecondThreadTheCallerWorks) {
  tolvar_test::SystemCallsGuard guard;
  guard.calls().pthreadCreate = [](pthread_t*, const pthread_attr_t*, void* (*)(void*), void*) {
    return EAGAIN;
  };
  std::thread::id worker;
  SideTask task([&] { worker = std::this_thread::get_id(); });
  EXPECT_EQ(worker, std::thread::id());
  task.finish();
  EXPECT_EQ(worker, std::this_thread::get_id());
}

TEST(SideTask, WorkThatFailsIsDoneAgainByTheCaller) {
  int runs = 0;
  SideTask task([&] {
    if (++runs == 1) throw std::bad_alloc();
  });
  task.finish();
  EXPECT_EQ(runs, 2);
}

TEST(SideTask, WorkThatFailsTwiceIsAFailureOfFinish) {
  SideTask task([] { throw std::bad_alloc(); });
  EXPECT_THROW(task.finish(), std::bad_alloc);
}

TEST(SideTask, DestructionWaitsForTheWork) {
  bool done = false;
  {
    const SideTask task([&] { done = true; });
  }
  EXPECT_TRUE(done);
}

}  // namespace
