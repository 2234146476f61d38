#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace tolvar_test {

/// A `tolvard serve` of the test's own, on any free port of the loopback. Killed at the end if it
/// still runs.
class TolvardProcess {
 public:
  /// Starts it on `database` and waits until it listens. A failure to start fails the test.
  explicit TolvardProcess(const std::string& database,
                          const std::vector<std::string>& arguments = {});
  ~TolvardProcess();
  TolvardProcess(const TolvardProcess&) = delete;
  TolvardProcess& operator=(const TolvardProcess&) = delete;

  /// "127.0.0.1:PORT".
  const std::string& address() const noexcept { return _address; }

  /// The next line that holds `text`, reading on from the line returned last; empty (and the test
  /// fails) when none comes within `milliseconds`.
  std::string awaitLine(const std::string& text, int milliseconds = 20000);

  void signal(int number) const;

  /// Exit status once it has ended, -1 when a signal ended it.
  int awaitExit();

 private:
  bool readMore(int milliseconds);

  pid_t _process = 0;
  int _output = -1;
  std::string _unread;
  std::string _address;
};

/// Value of a field of an event line; empty when it has none.
std::string fieldOf(const std::string& line, const std::string& name);

}  // namespace tolvar_test
