#pragma once

#include <sys/types.h>

#include <memory>
#include <string>
#include <string_view>

#include "platform/clock.h"
#include "records/records.h"
#include "remote/proxies.h"

namespace tolvar {
class ReportCourier;
class ReportStore;
}  // namespace tolvar

/// Tells the service how often names were looked up, and passes sampled lines on to it.
///
/// `report` and `reportSimpleLog` are made for lookup threads: they take no lock that all of them
/// share, never wait for the network and never throw; what cannot be kept is counted and the number
/// goes to the service with the next delivery. They may be called in every state, also before
/// `start` and without a proxy. A thread of the object's own delivers every kIntervalMillis.
///
/// Memory is bounded: 16384 distinct names gathered since the last collection and as many waiting
/// for delivery, names of at most 256 bytes; 65536 lines and 4 MiB of text.
///
/// A delivery that fails is repeated at the next interval. One that failed after the service had
/// received it is then counted twice there; the reporter cannot know.
///
/// After a fork the child's `report` and `reportSimpleLog` go on counting and its destructor
/// returns at once, delivering nothing, since what was gathered is the parent's to deliver.
/// `setTolvarPrx`, `set_destructor_wait` and `start` in the child discard all that and begin anew;
/// the child calls the first of them before it starts threads that report.
class ClientReport {
 public:
  static constexpr int kIntervalMillis = 5000;

  /// Longest time in milliseconds that `stop` and destruction wait for a delivery.
  static constexpr int kStopMillis = 2000;

  /// `clock` paces the deliveries and outlives the object; `stopMillis`, in real time, replaces
  /// kStopMillis.
  explicit ClientReport(qel::Clock& clock = qel::systemClock(), int stopMillis = kStopMillis);

  /// Stops the thread. With `set_destructor_wait(true)` what is left is delivered first, in at most
  /// kStopMillis even when the remote call hangs; otherwise it is dropped, and a call under way is
  /// cancelled. One that cannot be cancelled either is left to itself: it keeps the proxy alive
  /// until it returns, and touches nothing else.
  ~ClientReport();
  ClientReport(const ClientReport&) = delete;
  ClientReport& operator=(const ClientReport&) = delete;

  /// Counts one hit of `name`. May be called from any thread.
  void report(ravel::ReportType type, std::string_view name) noexcept;
  void report(ravel::ReportType type, const std::string& name) noexcept {
    report(type, std::string_view(name));
  }
  void report(ravel::ReportType type, const char* name) noexcept {
    report(type, std::string_view(name));
  }

  /// Queues one line; lines are delivered in the order of these calls. `limit` is how many lines
  /// may wait, those being delivered included; with 0 or less none may. May be called from any
  /// thread.
  void reportSimpleLog(const std::string& text, int limit) noexcept;

  /// The service to deliver to; null: keep everything. May be called at any time, but not at the
  /// same time as `start`, `stop` and `set_destructor_wait`.
  void setTolvarPrx(ravel::TolvarPrx proxy);

  /// Whether stopping delivers what is left (bounded in time); true at construction. May be called
  /// as `setTolvarPrx` may.
  void set_destructor_wait(bool wait);

  /// Starts the thread; does nothing while it runs. Throws qel::ZU_Exception when the thread cannot
  /// be created. `start` and `stop` are called by one thread at a time.
  void start();

  /// Ends the thread as the destructor does; what was not delivered is kept for the next `start`.
  /// Does nothing when no thread runs.
  void stop();

 private:
  bool isForkedCopy() const noexcept;
  void abandonParents() noexcept;
  void beginAnewAfterFork();

  qel::Clock& _clock;
  const int _stopMillis;
  pid_t _process;
  std::shared_ptr<tolvar::ReportStore> _store;
  std::shared_ptr<tolvar::ReportCourier> _courier;
};
