#pragma once

#include "platform/system_calls.h"

namespace tolvar_test {

/// Puts the table of system calls back at the end of a scope. A test replaces entries through
/// `calls()` before it starts threads and leaves the scope after it has joined them.
class SystemCallsGuard {
 public:
  SystemCallsGuard() : _saved(qel::systemCalls()) {}
  ~SystemCallsGuard() { qel::systemCalls() = _saved; }
  SystemCallsGuard(const SystemCallsGuard&) = delete;
  SystemCallsGuard& operator=(const SystemCallsGuard&) = delete;

  qel::SystemCalls& calls() const { return qel::systemCalls(); }

 private:
  const qel::SystemCalls _saved;
};

}  // namespace tolvar_test
