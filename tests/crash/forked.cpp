#include "tests/crash/forked.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstring>
#include <ctime>
#include <exception>
#include <fstream>
#include <new>
#include <sstream>
#include <stdexcept>

#include "platform/shared_write_point.h"

namespace tolvar_test {
namespace {

constexpr int kPauseSeconds = 60;
constexpr std::size_t kOutputShown = 3000;

void copyText(char* to, std::size_t room, const char* from) {
  std::strncpy(to, from, room - 1);
  to[room - 1] = '\0';
}

bool awaitPost(sem_t* semaphore) {
  timespec limit{};
  clock_gettime(CLOCK_REALTIME, &limit);
  limit.tv_sec += kPauseSeconds;
  int result = 0;
  do {
    result = sem_timedwait(semaphore, &limit);
  } while (result != 0 && errno == EINTR);
  return result == 0;
}

std::string endOf(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream all;
  all << in.rdbuf();
  const std::string text = all.str();
  return text.size() <= kOutputShown ? text : text.substr(text.size() - kOutputShown);
}

}  // namespace

/// Lies in memory that both processes map.
struct Forked::Notes {
  std::atomic<int> points{0};
  std::atomic<int> killAt{0};
  PointFilter counts = everyPoint;
  sem_t paused;
  sem_t resumed;
  char at[64] = "";
  char problem[2000] = "";
};

Forked::Notes* Forked::notes = nullptr;

void Forked::passPoint([[maybe_unused]] const char* what) {
  if (!notes->counts(what)) return;
  const int point = notes->points.fetch_add(1) + 1;
  copyText(notes->at, sizeof notes->at, what);
  if (point == notes->killAt.load(std::memory_order_relaxed)) kill(getpid(), SIGKILL);
}

void Forked::live(const std::function<void()>& body, int killAt) {
  notes->killAt = killAt;
#ifdef TOLVAR_SHARED_WRITE_POINTS
  qel::sharedWriteListener = &Forked::passPoint;
#endif
  int status = 1;
  try {
    body();
    status = 0;
  } catch (const std::exception& error) {
    copyText(notes->problem, sizeof notes->problem, error.what());
  }
  std::fflush(nullptr);
  _exit(status);
}

Forked::Forked(const std::function<void()>& body, int killAt, PointFilter counts) {
  void* const at =
      mmap(nullptr, sizeof(Notes), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  if (at == MAP_FAILED) throw std::runtime_error("mmap failed");
  _notes = new (at) Notes;
  _notes->counts = counts;
  notes = _notes;
  if (sem_init(&_notes->paused, 1, 0) != 0 || sem_init(&_notes->resumed, 1, 0) != 0)
    throw std::runtime_error("sem_init failed");
  static int sequence = 0;
  _outputFile = "fork-" + std::to_string(++sequence) + ".log";
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) throw std::runtime_error("pipe2 failed");
  std::fflush(nullptr);
  _process = fork();
  if (_process < 0) throw std::runtime_error("fork failed");
  if (_process == 0) {
    const int output = open(_outputFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    dup2(output, 1);
    dup2(output, 2);
    live(body, killAt);
  }
  close(ends[1]);
  _alive = ends[0];
}

Forked::~Forked() {
  if (_process > 0) await(0);
  munmap(_notes, sizeof(Notes));
}

bool Forked::awaitPause() { return awaitPost(&_notes->paused); }
void Forked::resume() { sem_post(&_notes->resumed); }

void Forked::pause() {
  sem_post(&notes->paused);
  if (!awaitPost(&notes->resumed)) throw std::runtime_error("nobody resumed the fork");
}

Ending Forked::await(int milliseconds) {
  Ending ending;
  pollfd ended{_alive, POLLIN, 0};
  if (poll(&ended, 1, milliseconds) == 0) {
    kill(_process, SIGKILL);
    ending.problem = "still ran after " + std::to_string(milliseconds) + " ms";
  }
  int status = 0;
  waitpid(_process, &status, 0);
  close(_alive);
  _process = -1;
  ending.killed = WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL && ending.problem.empty();
  ending.finished = WIFEXITED(status) && WEXITSTATUS(status) == 0;
  ending.points = _notes->points;
  ending.at = _notes->at;
  if (ending.problem.empty()) ending.problem = _notes->problem;
  if (!ending.killed && !ending.finished) {
    if (ending.problem.empty()) ending.problem = "ended with status " + std::to_string(status);
    ending.output = endOf(_outputFile);
  }
  unlink(_outputFile.c_str());
  return ending;
}

}  // namespace tolvar_test
