#pragma once

#include <sys/types.h>

namespace tolvar_test {

/// Three System V keys that no other test uses at the same time. The segments and the semaphore set
/// behind them are removed at the end, whatever the test did.
class ShmKeys {
 public:
  ShmKeys();
  ~ShmKeys();
  ShmKeys(const ShmKeys&) = delete;
  ShmKeys& operator=(const ShmKeys&) = delete;

  key_t data0() const { return _first; }
  key_t data1() const { return _first + 1; }
  key_t size() const { return _first + 2; }

  /// Removes what stands behind the keys now.
  void removeSegments() const;

 private:
  key_t _first;
};

}  // namespace tolvar_test
