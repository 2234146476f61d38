#pragma once

#include <sys/types.h>

#include <array>
#include <chrono>
#include <memory>
#include <string>

namespace tolvar::tools {

/// What one run of the tool needs on the host and takes away again: a directory for the client's
/// files, which becomes the working directory, and three shared-memory keys. Both go when the
/// object does, and when the process is told to end by SIGINT, SIGTERM or SIGHUP. Made once, by the
/// main thread, before any other thread.
class PrivateRun {
 public:
  /// A process that ends by itself after a signal has this long, in milliseconds.
  static constexpr int kEndMillis = 600;

  /// Takes keys that nobody uses. Throws qel::ZU_Exception.
  PrivateRun();

  /// Uses `keys`; what stands behind them stays when the run ends.
  explicit PrivateRun(const std::array<key_t, 3>& keys);

  ~PrivateRun();
  PrivateRun(const PrivateRun&) = delete;
  PrivateRun& operator=(const PrivateRun&) = delete;

  const std::string& directory() const noexcept;
  const std::array<key_t, 3>& keys() const noexcept;

  /// From now on a signal does not end the process at once with 128 + its number; the process asks
  /// `awaitSignal` and ends by itself. One that has not kEndMillis later is ended with `status`.
  void endBySelf(int status);

  /// Waits for a signal for at most `limit`; true once one has come.
  bool awaitSignal(std::chrono::milliseconds limit) const;

 private:
  struct Belongings;

  void enterDirectory();
  void takeSignals();

  /// Shared with the thread that waits for signals, which lives as long as the process.
  const std::shared_ptr<Belongings> _belongings;
};

}  // namespace tolvar::tools
