#include "tools/shared/standard_output.h"

#include <stdio_ext.h>

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

OutputLost::OutputLost(int error)
    : std::runtime_error("standard output: " + std::generic_category().message(error)),
      _error(error) {}

bool OutputLost::readerLeft() const noexcept { return _error == EPIPE; }

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
