#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace tolvar_test {

/// A program of the test's own that runs until it ends by itself or the object does, which asks it
/// to end with SIGTERM and kills it when it has not done so in time. Its standard output is read
/// line by line.
class ChildProcess {
 public:
  /// Runs `words[0]`, an absolute path. A failure to start fails the test.
  explicit ChildProcess(std::vector<std::string> words);
  ~ChildProcess();
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  /// The next line that holds `text`, reading on from the line returned last; empty (and the test
  /// fails) when none comes within `milliseconds`.
  std::string awaitLine(const std::string& text, int milliseconds = 20000);

  void signal(int number) const;

  /// Exit status once it has ended, -1 when a signal ended it.
  int awaitExit();

  /// The most memory it ever had resident, shared memory included, in KiB; behind awaitExit only.
  long peakKib() const noexcept { return _peakKib; }

  pid_t id() const noexcept { return _process; }

 private:
  bool readMore(int milliseconds);
  bool endsWithin(int milliseconds) const;

  pid_t _process = 0;
  int _output = -1;
  long _peakKib = 0;
  std::string _unread;
};

/// Value of a field of an event line; empty when it has none.
std::string fieldOf(const std::string& line, const std::string& name);

}  // namespace tolvar_test
