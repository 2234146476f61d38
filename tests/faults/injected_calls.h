#pragma once

#include <string>
#include <vector>

namespace tolvar_test {

/// Which use of which system call fails, and how.
struct Fault {
  std::string call;      ///< an entry of the table of system calls by name
  int error = 0;         ///< errno, or what the call answers where it answers its error
  int first = 1;         ///< the use that fails, counted from 1
  bool lasting = false;  ///< all uses from there on fail, until `heal`
};

/// Puts counting entries into the table of system calls. Calls that give something back (shmdt,
/// munmap, close) do so and answer a failure all the same, as the system's do; the others do
/// nothing when they fail. One at a time, set up before threads start.
class InjectedCalls {
 public:
  explicit InjectedCalls(const Fault& fault);
  ~InjectedCalls();
  InjectedCalls(const InjectedCalls&) = delete;
  InjectedCalls& operator=(const InjectedCalls&) = delete;

  /// The fault was reached.
  static bool fired();
  /// From here on nothing fails.
  static void heal();

  /// Names of all entries.
  static std::vector<std::string> names();
};

}  // namespace tolvar_test
