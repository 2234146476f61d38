#include "tests/crash/soak_supervisor.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <stdexcept>

#include "platform/clock.h"
#include "platform/interprocess_lock.h"
#include "tests/crash/forked.h"
#include "tests/crash/whole_image.h"
#include "tests/src/update/segment_view.h"
#include "tests/support/plant.h"

namespace tolvar_test {
namespace {

constexpr int kLockMillis = 30000;
constexpr int kEndMillis = 60000;
constexpr int kSampleMillis = 250;
constexpr int kProgressMillis = 60000;
constexpr std::chrono::milliseconds kAimTime{100};
constexpr int kLongestHoldMicros = 2000;
constexpr std::size_t kShownProblems = 10;
/// Room for every version.
constexpr std::size_t kSmallRanges = 2048;
constexpr std::size_t kSmallNames = 2200;
/// Two data segments and the size record; while they grow the two old ones as well, and one that is
/// being made.
constexpr std::size_t kMostSegments = 6;

volatile std::sig_atomic_t interrupted = 0;

std::int64_t nowMillis() { return qel::systemClock().steadyMillis(); }

SoakRole roleOfLine(int line) {
  constexpr SoakRole kRoles[] = {SoakRole::follower, SoakRole::reader, SoakRole::follower,
                                 SoakRole::starter};
  return kRoles[line % 4];
}

std::string statusText(int status) {
  if (WIFSIGNALED(status)) return "signal " + std::to_string(WTERMSIG(status));
  return "exit status " + std::to_string(WEXITSTATUS(status));
}

/// The process that holds the lock behind `key`, 0 when nobody does.
pid_t lockHolder(key_t key) {
  const int id = semget(key, 0, 0);
  if (id < 0 || semctl(id, 0, GETVAL) <= 0) return 0;
  return semctl(id, 0, GETPID);
}

/// The number in a name like "v12 country".
std::uint32_t versionIn(const std::string& name) {
  return name.size() < 2 ? 0
                         : static_cast<std::uint32_t>(std::strtoul(name.c_str() + 1, nullptr, 10));
}

}  // namespace

SoakSupervisor::SoakSupervisor(const SoakOptions& options)
    : _options(options), _random(options.seed), _control(_directory.file("control")) {
  if (options.processes < 1 || options.processes > kMostWorkers)
    throw std::runtime_error("the number of processes must lie between 1 and " +
                             std::to_string(kMostWorkers));
  if (options.small) plantSegments(_keys, smallCapacities(kSmallRanges, kSmallNames));
  for (const int number : {SIGINT, SIGTERM}) std::signal(number, [](int) { interrupted = 1; });
}

SoakSupervisor::~SoakSupervisor() {
  for (const Worker& worker : _workers) {
    if (worker.process <= 0) continue;
    kill(worker.process, SIGKILL);
    waitpid(worker.process, nullptr, 0);
  }
}

void SoakSupervisor::problem(const std::string& what) {
  if (_problems.size() < kShownProblems) std::printf("soak: WRONG: %s\n", what.c_str());
  std::fflush(stdout);
  _problems.push_back(what);
}

void SoakSupervisor::spawn(int line) {
  const std::vector<std::string> words = {"soak",
                                          "--worker",
                                          nameOf(_workers[static_cast<std::size_t>(line)].role),
                                          "--line",
                                          std::to_string(line),
                                          "--key",
                                          std::to_string(_keys.data0()),
                                          "--publish-every",
                                          std::to_string(_options.publishMillis),
                                          "--control",
                                          _directory.file("control")};
  std::vector<char*> arguments;
  for (const std::string& word : words) arguments.push_back(const_cast<char*>(word.c_str()));
  arguments.push_back(nullptr);
  const pid_t process = fork();
  if (process < 0) throw std::runtime_error("fork failed");
  if (process == 0) {
    if (!_options.verbose) {
      const int nothing = open("/dev/null", O_WRONLY);
      dup2(nothing, 1);
      dup2(nothing, 2);
    }
    execv("/proc/self/exe", arguments.data());
    _exit(127);
  }
  _workers[static_cast<std::size_t>(line)].process = process;
}

bool SoakSupervisor::run() {
  std::printf("soak: seed %llu, %d processes, a version every %d ms, a kill every %d ms\n",
              static_cast<unsigned long long>(_options.seed), _options.processes,
              _options.publishMillis, _options.killMillis);
  std::fflush(stdout);
  const std::int64_t begin = nowMillis();
  _control->version = 1;
  for (int line = 0; line < _options.processes; ++line) {
    _workers.push_back({roleOfLine(line), 0});
    spawn(line);
  }
  std::int64_t publish = begin + _options.publishMillis;
  std::int64_t killTime = begin + untilNextKill();
  std::int64_t sampleTime = begin + kSampleMillis;
  std::int64_t progressTime = begin + kProgressMillis;
  for (std::int64_t now = begin; !finished(now - begin); now = nowMillis()) {
    if (now >= publish) {
      ++_control->version;
      publish = std::max(publish + _options.publishMillis, now);
    }
    if (now >= killTime) {
      killOne();
      killTime = nowMillis() + untilNextKill();
    }
    if (now >= sampleTime) {
      sample();
      lookForEnded();
      sampleTime = nowMillis() + kSampleMillis;
      if (now >= progressTime) {
        std::printf("soak: %d kills, version %u\n", _killed, _control->version.load());
        std::fflush(stdout);
        progressTime = now + kProgressMillis;
      }
    }
    const std::int64_t next = std::min({publish, killTime, sampleTime}) - nowMillis();
    if (next > 0) poll(nullptr, 0, static_cast<int>(next));
  }
  const std::int64_t millis = nowMillis() - begin;
  endAll();
  startOnceMore();
  judgePeaks();
  collectProblems();
  printFigures(millis);
  return _problems.empty();
}

bool SoakSupervisor::finished(std::int64_t elapsed) const {
  if (interrupted != 0 || _problems.size() >= kShownProblems) return true;
  if (_options.millis != 0 && elapsed >= _options.millis) return true;
  return _options.kills != 0 && _killed >= _options.kills;
}

std::int64_t SoakSupervisor::untilNextKill() {
  return std::uniform_int_distribution<std::int64_t>(0, 2 * _options.killMillis)(_random);
}

/// Every other kill goes to a process that holds the lock, some random time after it was seen to:
/// a publication is short, and few kills would come into it by chance.
int SoakSupervisor::chooseLine() {
  const int anybody = std::uniform_int_distribution<int>(0, _options.processes - 1)(_random);
  if (_killed % 2 == 0) return anybody;
  const auto begin = std::chrono::steady_clock::now();
  while (std::chrono::steady_clock::now() - begin < kAimTime) {
    const pid_t holder = lockHolder(_keys.size());
    const auto worker = std::find_if(_workers.begin(), _workers.end(), [&](const Worker& w) {
      return w.process > 0 && w.process == holder;
    });
    if (worker == _workers.end()) continue;
    const auto seen = std::chrono::steady_clock::now();
    const std::chrono::microseconds wait(
        std::uniform_int_distribution<int>(0, kLongestHoldMicros)(_random));
    while (std::chrono::steady_clock::now() - seen < wait) continue;
    ++_aimed;
    return static_cast<int>(worker - _workers.begin());
  }
  return anybody;
}

void SoakSupervisor::killOne() {
  const int line = chooseLine();
  Worker& worker = _workers[static_cast<std::size_t>(line)];
  kill(worker.process, SIGKILL);
  int status = 0;
  waitpid(worker.process, &status, 0);
  worker.process = 0;
  if (!WIFSIGNALED(status) || WTERMSIG(status) != SIGKILL)
    problem(std::string("a ") + nameOf(worker.role) + " ended with " + statusText(status));
  ++_killed;
  ++_kills[worker.role];
  checkImage();
  spawn(line);
}

void SoakSupervisor::lookForEnded() {
  for (std::size_t line = 0; line < _workers.size(); ++line) {
    Worker& worker = _workers[line];
    int status = 0;
    if (worker.process <= 0 || waitpid(worker.process, &status, WNOHANG) != worker.process)
      continue;
    worker.process = 0;
    problem(std::string("a ") + nameOf(worker.role) + " ended with " + statusText(status) + ": " +
            _control->lines[line].problem);
    spawn(static_cast<int>(line));
  }
}

/// Under the lock nobody writes, so whatever says ready must be whole.
void SoakSupervisor::checkImage() {
  qel::InterprocessLock lock;
  if (!lock.acquire(_keys.size(), kLockMillis))
    return problem("the lock was not free within " + std::to_string(kLockMillis) + " ms");
  bool ready = false;
  checkHalf(_keys.data0(), &ready);
  checkHalf(_keys.data1(), &ready);
  if (_everReady && !ready) problem("no segment is ready any more");
  _everReady = _everReady || ready;
  ++_imageChecks;
}

void SoakSupervisor::checkHalf(key_t key, bool* ready) {
  try {
    const SegmentView segment(key);
    if (!segment.exists() || segment.ipStatus() != 1 || segment.codeStatus() != 1) return;
    const std::vector<StoredRange> ranges = segment.ranges();
    const std::vector<StoredCode> names = segment.codes(0);
    if (ranges.empty() || names.empty()) return problem("a ready segment is empty");
    const std::uint32_t ranged = ranges.front().oper;
    const std::uint32_t named = versionIn(names.front().name);
    if (std::max(ranged, named) > _control->version)
      problem("a segment is of no version published");
    halvesOf(key, {soakVersion(ranged), soakVersion(named)});
    *ready = true;
  } catch (const std::exception& error) {
    problem(error.what());
  }
}

void SoakSupervisor::sample() {
  Peak peak;
  std::set<unsigned long> segments;
  for (const Worker& worker : _workers) {
    const ProcessFigures figures = figuresOf(worker.process);
    peak.privateKib = std::max(peak.privateKib, figures.privateKib);
    peak.descriptors = std::max(peak.descriptors, figures.descriptors);
    segments.insert(figures.segments.begin(), figures.segments.end());
  }
  peak.segments = segments.size();
  _samples.push_back(peak);
}

void SoakSupervisor::endAll() {
  _control->stop = true;
  const std::int64_t end = nowMillis() + kEndMillis;
  for (Worker& worker : _workers) {
    int status = 0;
    pid_t ended = 0;
    while ((ended = waitpid(worker.process, &status, WNOHANG)) == 0 && nowMillis() < end)
      poll(nullptr, 0, 10);
    if (ended == 0) {
      problem(std::string("a ") + nameOf(worker.role) + " did not end when asked to");
      continue;
    }
    worker.process = 0;
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0)
      problem(std::string("a ") + nameOf(worker.role) + " ended with " + statusText(status));
  }
}

/// A last process finds what the others left, and can go on from there.
void SoakSupervisor::startOnceMore() {
  checkImage();
  const Version next = soakVersion(_control->version + 1);
  const Ending ending = Forked([&] {
                          CrashHost host(_keys);
                          host.start();
                          if (!host.ready()) throw std::runtime_error("there is no image");
                          host.publish(next);
                          expectBothHold(_keys, next);
                        }).await();
  if (!ending.finished) problem("a start after the run: " + ending.problem + "\n" + ending.output);
}

/// What the processes take up in the last third is what they take up in the first.
void SoakSupervisor::judgePeaks() {
  const std::size_t third = _samples.size() / 3;
  if (third == 0) return problem("the run was too short to tell whether memory stays flat");
  Peak first, last;
  for (std::size_t i = 0; i < _samples.size(); ++i) {
    if (i >= third && i < _samples.size() - third) continue;
    Peak& part = i < third ? first : last;
    part.privateKib = std::max(part.privateKib, _samples[i].privateKib);
    part.descriptors = std::max(part.descriptors, _samples[i].descriptors);
    part.segments = std::max(part.segments, _samples[i].segments);
  }
  std::printf(
      "soak: at most, first and last third: private memory of a process %zu and %zu KiB, "
      "its descriptors %zu and %zu, segments mapped by anybody %zu and %zu\n",
      first.privateKib, last.privateKib, first.descriptors, last.descriptors, first.segments,
      last.segments);
  if (last.privateKib > first.privateKib + first.privateKib / 2 + kFlatMemoryKib)
    problem("memory grew");
  if (last.descriptors > first.descriptors + 4) problem("the number of descriptors grew");
  if (std::max(first.segments, last.segments) > kMostSegments)
    problem("there were " + std::to_string(std::max(first.segments, last.segments)) + " segments");
}

void SoakSupervisor::collectProblems() {
  for (const SoakLine& line : _control->lines)
    if (line.wrong != 0) problem(std::string("a wrong answer: ") + line.problem);
}

void SoakSupervisor::printFigures(std::int64_t millis) const {
  unsigned long long lookups = 0, wrong = 0, starts = 0, failed = 0, publications = 0;
  for (const SoakLine& line : _control->lines) {
    lookups += line.lookups;
    wrong += line.wrong;
    starts += line.starts;
    failed += line.failedStarts;
    publications += line.publications;
  }
  std::printf("soak: %d kills in %.1f s (", _killed, static_cast<double>(millis) / 1000);
  for (const auto& [role, count] : _kills) std::printf(" %s %d", nameOf(role), count);
  std::printf(" ), %d of them of a holder of the lock, %d looks at the image\n", _aimed,
              _imageChecks);
  std::printf("soak: %u versions, %llu publications, %llu starts, %llu failed starts\n",
              _control->version.load(), publications, starts, failed);
  std::printf("soak: %llu answers checked, %llu wrong\n", lookups, wrong);
  std::printf("soak: %s, %zu problems\n", _problems.empty() ? "passed" : "FAILED",
              _problems.size());
}

}  // namespace tolvar_test
