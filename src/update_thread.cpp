#include "src/client_internals.h"
#include "src/client_log.h"

namespace {
constexpr int kIdleMillis = 1000;
}

void TolvarAPI::run() {
  while (!m_terminated) {
    try {
      int status = 0;
      bool bRet = false;
      // Every step runs on every pass; a bit is set when its own step or an earlier one did work.
      bRet = checkChange() || bRet;
      if (bRet) status |= 1;
      bRet = totalDownloadRequest() || bRet;
      if (bRet) status |= 2;
      bRet = checkCodeChangeRequest() || bRet;
      if (bRet) status |= 4;
      TOLVAR_LOG(kLogDebug, 722, "ClientMD5 is " << m_cltMd5 << ", status=" << status);
      if (!bRet) {
        Lock hold(*this);
        if (!m_terminated) timedWait(kIdleMillis, m_internals->clock);
      }
    } catch (const std::exception& error) {
      TOLVAR_LOG(kLogError, 732, "run exception:" << error.what());
    } catch (...) {
      TOLVAR_LOG(kLogError, 737, "run exception.");
    }
  }
  Lock hold(*this);
  m_internals->updateEnded = true;
  notifyAll();
}

void TolvarAPI::noteError(tolvar::Step step, const char* what) noexcept {
  const std::time_t now = m_internals->clock.time();
  std::lock_guard<std::mutex> hold(m_internals->statusMutex);
  m_internals->errors.failed(step, what, now);
}

void TolvarAPI::noteSuccess(tolvar::Step step) noexcept {
  std::lock_guard<std::mutex> hold(m_internals->statusMutex);
  m_internals->errors.succeeded(step);
}

void TolvarAPI::retryLater(tolvar::RetryBackoff& retry, tolvar::Step step, const char* what) {
  noteError(step, what);
  const int delay = retry.failed();
  if (delay == 0) return;
  Lock hold(*this);
  if (!m_terminated) timedWait(delay, m_internals->clock);
}

int TolvarAPI::readiness() const {
  std::lock_guard<qel::ZU_ThreadMutex> hold(m_has_initialized_mutex);
  return m_has_initialized;
}

void TolvarAPI::announceReady(int bit) {
  std::lock_guard<qel::ZU_ThreadMutex> hold(m_has_initialized_mutex);
  m_has_initialized |= bit;
  if (m_has_initialized == 3) m_has_initialized_cond.broadcast();
}
