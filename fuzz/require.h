#pragma once

#include <stdio.h>
#include <unistd.h>

#include <cstdlib>

/// Ends the process, which counts as a finding, when `condition` does not hold.
#define FUZZ_REQUIRE(condition)                                                             \
  do {                                                                                      \
    if (!(condition)) {                                                                     \
      dprintf(STDERR_FILENO, "%s:%d: does not hold: %s\n", __FILE__, __LINE__, #condition); \
      std::abort();                                                                         \
    }                                                                                       \
  } while (false)
