#pragma once

#include <cstdio>
#include <exception>

namespace tolvar_bench {

/// The exit status of a program: what `body` answers, or 1 when it throws std::exception, whose
/// text then goes to standard error.
template <class Body>
int runMain(const char* program, Body body) {
  try {
    return body();
  } catch (const std::exception& error) {
    std::fprintf(stderr, "%s: %s\n", program, error.what());
    return 1;
  }
}

}  // namespace tolvar_bench
