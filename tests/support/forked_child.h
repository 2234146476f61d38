#pragma once

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

namespace tolvar_test {

/// Waits for a child; true when it answered 0.
inline testing::AssertionResult endsWell(pid_t child) {
  int status = 0;
  if (waitpid(child, &status, 0) != child) return testing::AssertionFailure() << "no child";
  if (WIFSIGNALED(status))
    return testing::AssertionFailure() << "ended by signal " << WTERMSIG(status);
  if (WEXITSTATUS(status) != 0)
    return testing::AssertionFailure() << "answered " << WEXITSTATUS(status);
  return testing::AssertionSuccess();
}

/// Runs `body` in a fork of this process; true when it answered 0 within half a minute.
template <class Body>
testing::AssertionResult endsWellForked(Body body) {
  constexpr unsigned kSeconds = 30;
  const pid_t child = fork();
  if (child == 0) {
    alarm(kSeconds);  // a deadlock ends as a failure
    _exit(body());
  }
  return endsWell(child);
}

}  // namespace tolvar_test
