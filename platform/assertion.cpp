#include "platform/assertion.h"

#include <cstdio>
#include <cstdlib>

namespace qel {

void assertionFailed(const char* expression, const char* file, unsigned line,
                     const char* function) noexcept {
  std::fprintf(stderr, "%s:%u: %s: Assertion `%s' failed.\n", file, line, function, expression);
  std::fflush(stderr);
  std::abort();
}

}  // namespace qel
