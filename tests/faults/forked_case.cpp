#include "tests/faults/forked_case.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <fstream>
#include <iterator>
#include <thread>

namespace tolvar_test {
namespace {

constexpr char kDone = '\n';
constexpr std::size_t kShownOutput = 3000;

[[noreturn]] void live(const std::string& directory, int result,
                       const std::function<std::string()>& body) {
  const int output = open((directory + "/output").c_str(),
                          O_WRONLY | O_CREAT | O_TRUNC | O_APPEND | O_CLOEXEC, 0644);
  if (output < 0 || chdir(directory.c_str()) != 0) _exit(101);
  dup2(output, STDOUT_FILENO);
  dup2(output, STDERR_FILENO);
  close(output);
  // A sanitizer makes a thread of its own beside the first one of a process.
  std::thread([] {}).join();
  std::string answer;
  try {
    answer = body();
  } catch (const std::exception& error) {
    answer = std::string("exception let out: ") + error.what();
  }
  answer.insert(answer.begin(), kDone);
  std::size_t done = 0;
  while (done < answer.size()) {
    const ssize_t written = write(result, answer.data() + done, answer.size() - done);
    if (written <= 0) _exit(102);
    done += static_cast<std::size_t>(written);
  }
  _exit(0);
}

/// Reads until the other end is closed; false when that takes too long.
bool readAll(int fd, int seconds, std::string* text) {
  using Steady = std::chrono::steady_clock;
  const auto end = Steady::now() + std::chrono::seconds(seconds);
  for (;;) {
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(end - Steady::now()).count();
    pollfd readable{fd, POLLIN, 0};
    if (left <= 0 || poll(&readable, 1, static_cast<int>(left)) == 0) return false;
    char buffer[4096];
    const ssize_t got = read(fd, buffer, sizeof buffer);
    if (got == 0) return true;
    if (got < 0 && errno != EINTR) return false;
    if (got > 0) text->append(buffer, static_cast<std::size_t>(got));
  }
}

std::string endOfOutput(const std::string& directory) {
  std::ifstream in(directory + "/output", std::ios::binary);
  std::string text{std::istreambuf_iterator<char>(in), {}};
  if (text.size() > kShownOutput) text.erase(0, text.size() - kShownOutput);
  return "; end of its output:\n" + text;
}

}  // namespace

std::string runForked(const std::string& directory, int seconds,
                      const std::function<std::string()>& body) {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) return "no pipe";
  const pid_t child = fork();
  if (child < 0) return "no fork";
  if (child == 0) {
    close(ends[0]);
    live(directory, ends[1], body);
  }
  close(ends[1]);
  std::string answer;
  const bool ended = readAll(ends[0], seconds, &answer);
  close(ends[0]);
  if (!ended) kill(child, SIGKILL);
  int status = 0;
  waitpid(child, &status, 0);
  if (!ended) {
    return "still running after " + std::to_string(seconds) + " seconds" + endOfOutput(directory);
  }
  if (WIFSIGNALED(status)) {
    return std::string("ended by ") + strsignal(WTERMSIG(status)) + endOfOutput(directory);
  }
  if (answer.empty() || answer.front() != kDone || WEXITSTATUS(status) != 0) {
    return "ended with status " + std::to_string(WEXITSTATUS(status)) + endOfOutput(directory);
  }
  return answer.substr(1);
}

}  // namespace tolvar_test
