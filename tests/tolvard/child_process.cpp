#include "tests/tolvard/child_process.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <csignal>

extern char** environ;

namespace tolvar_test {
namespace {

constexpr int kEndMillis = 6000;

}  // namespace

ChildProcess::ChildProcess(std::vector<std::string> words) {
  std::vector<char*> argv;
  for (std::string& word : words) argv.push_back(word.data());
  argv.push_back(nullptr);
  std::array<int, 2> ends{};
  EXPECT_EQ(pipe2(ends.data(), O_CLOEXEC), 0);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, ends[1], 1);
  EXPECT_EQ(posix_spawn(&_process, argv[0], &actions, nullptr, argv.data(), environ), 0);
  posix_spawn_file_actions_destroy(&actions);
  close(ends[1]);
  _output = ends[0];
}

ChildProcess::~ChildProcess() {
  if (_process > 0) {
    kill(_process, SIGTERM);
    if (!endsWithin(kEndMillis)) kill(_process, SIGKILL);
    waitpid(_process, nullptr, 0);
  }
  close(_output);
}

bool ChildProcess::endsWithin(int milliseconds) const {
  const int handle = static_cast<int>(syscall(SYS_pidfd_open, _process, 0));
  if (handle < 0) return false;
  pollfd ended{handle, POLLIN, 0};
  const bool hasEnded = poll(&ended, 1, milliseconds) > 0;
  close(handle);
  return hasEnded;
}

void ChildProcess::signal(int number) const { EXPECT_EQ(kill(_process, number), 0); }

int ChildProcess::awaitExit() {
  int status = 0;
  rusage used{};
  EXPECT_EQ(wait4(_process, &status, 0, &used), _process);
  _process = 0;
  _peakKib = used.ru_maxrss;
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

bool ChildProcess::readMore(int milliseconds) {
  pollfd ready{_output, POLLIN, 0};
  if (milliseconds <= 0 || poll(&ready, 1, milliseconds) <= 0) return false;
  std::array<char, 4096> buffer;
  const ssize_t got = read(_output, buffer.data(), buffer.size());
  if (got <= 0) return false;
  _unread.append(buffer.data(), static_cast<std::size_t>(got));
  return true;
}

std::string ChildProcess::awaitLine(const std::string& text, int milliseconds) {
  using namespace std::chrono;
  const auto deadline = steady_clock::now() + std::chrono::milliseconds(milliseconds);
  std::string seen;
  while (true) {
    for (std::size_t end; (end = _unread.find('\n')) != std::string::npos;) {
      const std::string line = _unread.substr(0, end);
      _unread.erase(0, end + 1);
      if (line.find(text) != std::string::npos) return line;
      seen += line + "\n";
    }
    const auto left = duration_cast<std::chrono::milliseconds>(deadline - steady_clock::now());
    if (readMore(static_cast<int>(left.count()))) continue;
    ADD_FAILURE() << "no line with " << text << " came; instead:\n" << seen << _unread;
    return "";
  }
}

std::string fieldOf(const std::string& line, const std::string& name) {
  const std::size_t at = line.find(" " + name + "=");
  if (at == std::string::npos) return "";
  const std::size_t begin = at + name.size() + 2;
  if (begin < line.size() && line[begin] == '"')
    return line.substr(begin + 1, line.find('"', begin + 1) - begin - 1);
  return line.substr(begin, line.find(' ', begin) - begin);
}

}  // namespace tolvar_test
