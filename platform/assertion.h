#pragma once

namespace qel {

/// Writes "file:line: function: Assertion `expression' failed." to standard error and aborts the
/// process. The texts are given by the caller, so that they are the same in every build type and
/// with every compiler. Safe to call from any thread.
[[noreturn]] void assertionFailed(const char* expression, const char* file, unsigned line,
                                  const char* function) noexcept;

/// Does so unless `holds`.
inline void require(bool holds, const char* expression, const char* file, unsigned line,
                    const char* function) {
  if (!holds) assertionFailed(expression, file, line, function);
}

}  // namespace qel
