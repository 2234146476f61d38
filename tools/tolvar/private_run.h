#pragma once

#include <sys/types.h>

#include <array>
#include <string>

namespace tolvar::tools {

/// What one run of the tool needs on the host and takes away again: a directory for the client's
/// files, which becomes the working directory, and three shared-memory keys. Both go when the
/// object does, and when the process is told to end by SIGINT, SIGTERM or SIGHUP. Made once, by the
/// main thread, before any other thread.
class PrivateRun {
 public:
  /// Takes keys that nobody uses. Throws qel::ZU_Exception.
  PrivateRun();

  /// Uses `keys`; what stands behind them stays when the run ends.
  explicit PrivateRun(const std::array<key_t, 3>& keys);

  ~PrivateRun();
  PrivateRun(const PrivateRun&) = delete;
  PrivateRun& operator=(const PrivateRun&) = delete;

  const std::string& directory() const noexcept { return _directory; }
  const std::array<key_t, 3>& keys() const noexcept { return _keys; }

 private:
  void enterDirectory();
  void endOnSignals();
  void cleanUp() const noexcept;

  std::string _directory;
  std::array<key_t, 3> _keys;
  bool _removeKeys;
};

}  // namespace tolvar::tools
