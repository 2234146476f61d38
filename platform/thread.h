#pragma once

#include <pthread.h>
#include <sys/types.h>

#include <atomic>
#include <memory>

namespace qel {

class Clock;
class ZU_ThreadCond;

/// Non-recursive mutex. All operations may be called from any thread; `unlock` only by the holder.
class ZU_ThreadMutex {
 public:
  ZU_ThreadMutex() noexcept;
  ~ZU_ThreadMutex();
  ZU_ThreadMutex(const ZU_ThreadMutex&) = delete;
  ZU_ThreadMutex& operator=(const ZU_ThreadMutex&) = delete;

  void lock() noexcept;
  void unlock() noexcept;
  bool try_lock() noexcept;

 private:
  friend class ZU_ThreadCond;
  mutable pthread_mutex_t _mutex;
};

/// Condition variable whose time-outs run on the monotonic clock. A forked child may destroy one
/// that a thread of its parent waits on.
class ZU_ThreadCond {
 public:
  ZU_ThreadCond();
  ~ZU_ThreadCond();
  ZU_ThreadCond(const ZU_ThreadCond&) = delete;
  ZU_ThreadCond& operator=(const ZU_ThreadCond&) = delete;

  void signal() noexcept;
  void broadcast() noexcept;

  /// Waits without limit. The caller holds `mutex`. Spurious wake-ups happen.
  void wait(ZU_ThreadMutex& mutex) noexcept;

  /// Waits for at most `milliseconds` (0 or more). The caller holds `mutex`.
  /// Answers false when the time ran out, true when woken. Spurious wake-ups happen.
  bool timedWait(ZU_ThreadMutex& mutex, int milliseconds) noexcept;

 private:
  pthread_cond_t _cond;
  const pid_t _process;
};

/// A mutex with a condition of its own; base of objects that a thread sleeps on.
template <class MutexT, class CondT>
class ZU_Monitor {
 public:
  /// Holds the monitor for a scope.
  class Lock {
   public:
    explicit Lock(const ZU_Monitor& monitor) : _monitor(monitor) { _monitor.lock(); }
    ~Lock() { _monitor.unlock(); }
    Lock(const Lock&) = delete;
    Lock& operator=(const Lock&) = delete;

   private:
    const ZU_Monitor& _monitor;
  };

  ZU_Monitor() = default;
  virtual ~ZU_Monitor() = default;
  ZU_Monitor(const ZU_Monitor&) = delete;
  ZU_Monitor& operator=(const ZU_Monitor&) = delete;

  void lock() const { _mutex.lock(); }
  void unlock() const { _mutex.unlock(); }

  /// The caller holds the monitor.
  void notifyAll() { _cond.broadcast(); }

  /// The caller holds the monitor. Waits for at most `milliseconds` of real time.
  bool timedWait(int milliseconds) const { return _cond.timedWait(_mutex, milliseconds); }

  /// The same on `clock`'s time.
  template <class ClockT>
  bool timedWait(int milliseconds, ClockT& clock) const {
    return clock.wait(_cond, _mutex, milliseconds);
  }

 private:
  mutable MutexT _mutex;
  mutable CondT _cond;
};

/// Handle of a started thread; copies share it.
class ZU_ThreadControl {
 public:
  ZU_ThreadControl() = default;

  /// Waits for the thread's end. A second call, a call for a thread never started, and a call in a
  /// forked child (where the thread does not exist) return at once. Never called by the thread
  /// itself.
  void join();

 private:
  friend class ZU_Thread;
  struct State;
  std::shared_ptr<State> _state;
};

/// Base of objects with a thread of their own. A derived class joins its thread before its own
/// members are destroyed.
class ZU_Thread {
 public:
  ZU_Thread() = default;
  virtual ~ZU_Thread() = default;
  ZU_Thread(const ZU_Thread&) = delete;
  ZU_Thread& operator=(const ZU_Thread&) = delete;

  /// Runs `run` on a new thread, with all signals blocked in it. Throws ZU_Exception when the
  /// thread cannot be created or when the last one started has not ended yet.
  ZU_ThreadControl start();

  ZU_ThreadControl getThreadControl() const { return _control; }

  /// True from `start` until `run` has returned; false in a forked child, where the thread does not
  /// exist.
  bool isAlive() const noexcept;

 protected:
  /// The thread's body. An exception that leaves it ends the thread, not the process.
  virtual void run() = 0;

 private:
  static void* entry(void* self);

  ZU_ThreadControl _control;
  std::atomic<bool> _alive{false};
  pid_t _process = 0;
};

}  // namespace qel
