#include "platform/thread.h"

#include <csignal>
#include <ctime>
#include <exception>
#include <mutex>

#include "platform/exception.h"
#include "platform/system_calls.h"

namespace qel {

ZU_ThreadMutex::ZU_ThreadMutex() noexcept { pthread_mutex_init(&_mutex, nullptr); }
ZU_ThreadMutex::~ZU_ThreadMutex() { pthread_mutex_destroy(&_mutex); }
void ZU_ThreadMutex::lock() noexcept { pthread_mutex_lock(&_mutex); }
void ZU_ThreadMutex::unlock() noexcept { pthread_mutex_unlock(&_mutex); }
bool ZU_ThreadMutex::try_lock() noexcept { return pthread_mutex_trylock(&_mutex) == 0; }

ZU_ThreadCond::ZU_ThreadCond() : _process(getpid()) {
  pthread_condattr_t attributes;
  pthread_condattr_init(&attributes);
  pthread_condattr_setclock(&attributes, CLOCK_MONOTONIC);
  pthread_cond_init(&_cond, &attributes);
  pthread_condattr_destroy(&attributes);
}
ZU_ThreadCond::~ZU_ThreadCond() {
  // Destruction waits for the waiters, and those of the parent will never come in a forked child.
  if (_process == getpid()) pthread_cond_destroy(&_cond);
}
void ZU_ThreadCond::signal() noexcept { pthread_cond_signal(&_cond); }
void ZU_ThreadCond::broadcast() noexcept { pthread_cond_broadcast(&_cond); }
void ZU_ThreadCond::wait(ZU_ThreadMutex& mutex) noexcept {
  pthread_cond_wait(&_cond, &mutex._mutex);
}

bool ZU_ThreadCond::timedWait(ZU_ThreadMutex& mutex, int milliseconds) noexcept {
  timespec deadline{};
  clock_gettime(CLOCK_MONOTONIC, &deadline);
  deadline.tv_sec += milliseconds / 1000;
  deadline.tv_nsec += static_cast<long>(milliseconds % 1000) * 1000000L;
  if (deadline.tv_nsec >= 1000000000L) {
    deadline.tv_sec += 1;
    deadline.tv_nsec -= 1000000000L;
  }
  return pthread_cond_timedwait(&_cond, &mutex._mutex, &deadline) == 0;
}

struct ZU_ThreadControl::State {
  std::mutex mutex;
  pthread_t thread{};
  pid_t process = 0;
  bool joined = false;
};

void ZU_ThreadControl::join() {
  if (!_state || _state->process != getpid()) return;
  std::lock_guard<std::mutex> hold(_state->mutex);
  if (_state->joined) return;
  pthread_join(_state->thread, nullptr);
  _state->joined = true;
}

bool ZU_Thread::isAlive() const noexcept {
  return _alive.load(std::memory_order_acquire) && _process == getpid();
}

ZU_ThreadControl ZU_Thread::start() {
  if (isAlive()) throw ZU_Exception("[ZU_Thread::start]: the thread is already running");
  _control.join();
  ZU_ThreadControl control;
  control._state = std::make_shared<ZU_ThreadControl::State>();
  control._state->process = getpid();

  // The host's signal handlers belong to the host's threads.
  sigset_t all, previous;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &previous);
  _process = getpid();
  _alive.store(true, std::memory_order_release);
  const int error = systemCalls().pthreadCreate(&control._state->thread, nullptr, &entry, this);
  pthread_sigmask(SIG_SETMASK, &previous, nullptr);
  if (error != 0) {
    _alive.store(false, std::memory_order_release);
    throw ZU_Exception("[ZU_Thread::start]: pthread_create failed", error);
  }
  _control = control;
  return control;
}

void* ZU_Thread::entry(void* self) {
  auto* thread = static_cast<ZU_Thread*>(self);
  struct End {
    std::atomic<bool>& alive;
    ~End() { alive.store(false, std::memory_order_release); }
  } end{thread->_alive};
  try {
    thread->run();
  } catch (...) {
    // A body that wants its failures seen reports them itself; the host must not be torn down.
    // What is no C++ exception is the unwinding of pthread_exit or a cancellation and must go on.
    if (std::current_exception() == nullptr) throw;
  }
  return nullptr;
}

}  // namespace qel
