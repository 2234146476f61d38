#pragma once

#include <atomic>
#include <mutex>
#include <string>
#include <thread>

#include "tools/tolvar/client_session.h"
#include "tools/tolvar/paced_clock.h"

namespace tolvar::tools {

/// Brings a prepared client up and keeps it so, however long its service takes to answer, in a
/// thread of its own.
class ClientKeeper {
 public:
  /// `session` is prepared on `clock`; both outlive the keeper. Once up, the client lives at `pace`
  /// (see PacedClock).
  ClientKeeper(ClientSession& session, PacedClock& clock, int pace);

  /// Ends calls and waits under way, which takes a few tenths of a second. The client is of no use
  /// after that.
  ~ClientKeeper();

  ClientKeeper(const ClientKeeper&) = delete;
  ClientKeeper& operator=(const ClientKeeper&) = delete;

  /// Why the client cannot come up, whatever the service does; empty unless so.
  std::string failure() const;

 private:
  void run(int pace);

  ClientSession& _session;
  PacedClock& _clock;
  std::atomic<bool> _isEnding{false};
  mutable std::mutex _mutex;
  std::string _failure;  ///< guarded by _mutex
  std::thread _thread;
};

}  // namespace tolvar::tools
