#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace tolvar_bench {

/// Another process of this program. It ends, at the latest, with its standard input.
class ChildProcess {
 public:
  /// Runs this program with `arguments`, on processor `cpu` only unless that is negative. Throws
  /// std::runtime_error when it cannot be started.
  explicit ChildProcess(const std::vector<std::string>& arguments, int cpu = -1);
  /// Closes the child's input and waits for its end.
  ~ChildProcess();
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  pid_t pid() const noexcept { return _pid; }

  /// The next line of its output; empty at the end.
  std::string readLine();

  /// Closes the child's input, waits, and throws std::runtime_error unless it exited with 0.
  void finish();

 private:
  pid_t _pid = -1;
  int _input = -1;
  int _output = -1;
};

/// Processor time of a process so far, in seconds.
struct ProcessorTime {
  double total = 0;
  double kernel = 0;  ///< of it in the kernel
};
ProcessorTime processorTime(pid_t pid);

/// "VmRSS" or "VmHWM" of a process, in bytes.
double memoryBytes(pid_t pid, const std::string& field);

/// Lets VmHWM begin again at what the process holds now.
void resetPeakMemory(pid_t pid);

}  // namespace tolvar_bench
