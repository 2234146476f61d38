#pragma once

#include <string>
#include <vector>

#include "tests/tolvard/child_process.h"

namespace tolvar_test {

/// A `tolvard serve` of the test's own. Killed at the end if it still runs.
class TolvardProcess : public ChildProcess {
 public:
  /// Starts it on `database` and waits until it listens: by default on any free port of the
  /// loopback. A failure to start fails the test.
  explicit TolvardProcess(const std::string& database,
                          const std::vector<std::string>& arguments = {},
                          const std::string& listen = "127.0.0.1:0");

  /// "127.0.0.1:PORT".
  const std::string& address() const noexcept { return _address; }

 private:
  std::string _address;
};

}  // namespace tolvar_test
