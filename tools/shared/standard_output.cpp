#include "tools/shared/standard_output.h"

#include <fcntl.h>
#include <stdio_ext.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <string>
#include <system_error>

namespace tolvar::tools {

namespace {

/// What was kept back is given up, so that the loss is told once.
[[noreturn]] void lose(int error) {
  __fpurge(stdout);
  std::clearerr(stdout);
  throw OutputLost(error);
}

}  // namespace

OutputLost::OutputLost(int error, const std::string& done)
    : std::runtime_error("standard output: " + std::generic_category().message(error) +
                         (done.empty() ? "" : "; all the same, " + done)),
      _error(error) {}

bool OutputLost::readerLeft() const noexcept { return _error == EPIPE; }

void reserveStandardDescriptors() noexcept {
  for (const int number : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
    if (fcntl(number, F_GETFD) >= 0) continue;
    // The lowest free number, which is this one. For the other direction only, so that reading and
    // writing fail as they would have.
    [[maybe_unused]] const int taken =
        open("/dev/null", number == STDIN_FILENO ? O_WRONLY : O_RDONLY);
  }
}

void writeOutput(std::string_view text) {
  if (std::fwrite(text.data(), 1, text.size(), stdout) != text.size()) lose(errno);
}

void flushOutput() {
  if (std::fflush(stdout) != 0) lose(errno);
  if (std::ferror(stdout) != 0) lose(EIO);
}

void print(std::string_view text) {
  writeOutput(text);
  flushOutput();
}

}  // namespace tolvar::tools
