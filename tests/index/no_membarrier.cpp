#include <cerrno>

#include "platform/system_calls.h"

/// Linked into a test program, takes membarrier(2) away before anything could use it.
namespace {

[[maybe_unused]] const bool kTaken = [] {
  qel::systemCalls().membarrier = [](int, unsigned) {
    errno = ENOSYS;
    return -1;
  };
  return true;
}();

}  // namespace
