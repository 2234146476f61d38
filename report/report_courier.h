#pragma once

#include <pthread.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "platform/clock.h"
#include "platform/thread.h"
#include "records/records.h"
#include "remote/proxies.h"
#include "report/report_store.h"

namespace tolvar {

/// The thread that hands what a store has gathered to the service.
///
/// The thread shares ownership of this object, so that one which hangs in a remote call can be left
/// to itself: when the call returns it ends without touching anything but this object, the store
/// and the proxy. All operations may be called from any thread, `start`, `stop` and `successor` by
/// one at a time.
class ReportCourier : public std::enable_shared_from_this<ReportCourier> {
 public:
  /// Most counts, lines and bytes of lines in one call. A single longer line goes by itself.
  static constexpr std::size_t kCountsPerCall = 4096;
  static constexpr std::size_t kLinesPerCall = 1000;
  static constexpr std::size_t kLineBytesPerCall = 1024 * 1024;

  /// What a cancelled call is given to return; proxies need 200 ms.
  static constexpr int kCancelMillis = 300;

  /// Delivers every `intervalMillis` on `clock`, which lives until `stop` has returned.
  ReportCourier(std::shared_ptr<ReportStore> store, qel::Clock& clock, int intervalMillis);

  void setProxy(ravel::TolvarPrx proxy);
  void setDeliverAtEnd(bool deliver);

  /// Starts the thread; does nothing while it runs. Throws qel::ZU_Exception.
  void start();

  /// Ends the thread, after a last delivery if so set, which may take `millis` of real time. A call
  /// that is still under way kCancelMillis before the end of that time (at once, without a last
  /// delivery) is cancelled. Answers false when even so the thread had to be left to itself in the
  /// call: this object is then spent.
  bool stop(int millis);

  /// A courier that goes on where this one, left to itself, stopped. What the hanging call carries
  /// is not taken over: the service may have it.
  std::shared_ptr<ReportCourier> successor();

 private:
  using Lock = std::unique_lock<qel::ZU_ThreadMutex>;

  static void* entry(void* self);
  void run();
  void awaitInterval();
  void awaitEnd(std::int64_t callsUntil);
  void cancelCall(Lock& lock);
  void deliver(Lock& lock);
  bool deliverCounts(Lock& lock);
  void deliverLines(Lock& lock);
  std::vector<std::string> takeLines();
  void putBack(std::vector<std::string> lines) noexcept;
  template <class Call>
  bool callService(Lock& lock, Call call);

  const std::shared_ptr<ReportStore> _store;
  qel::Clock& _clock;
  const int _intervalMillis;
  pthread_t _thread{};    // of start and stop
  bool _started = false;  // of start and stop

  qel::ZU_ThreadMutex _mutex;   // not held during a call of the service
  qel::ZU_ThreadCond _wake;     // the thread waits on it between deliveries
  qel::ZU_ThreadCond _changed;  // `stop` waits on it

  // Guarded by _mutex.
  ravel::TolvarPrx _proxy;
  bool _deliverAtEnd = true;
  bool _stopping = false;
  bool _calling = false;
  bool _finished = false;
  bool _cancelled = false;  // no further calls
  bool _leftAlone = false;
  PendingCounts _counts;
  PendingLines _lines;
};

}  // namespace tolvar
