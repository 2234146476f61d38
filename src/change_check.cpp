#include "src/client_internals.h"
#include "src/client_log.h"
#include "src/selected_server.h"

namespace {
constexpr int kCheckSeconds = 600;
}

bool TolvarAPI::checkChange() {
  bool asked = false;
  try {
    if (!checkIsDue()) return false;
    // Nothing is asked while a download is under way; the rest is as if nothing had changed.
    ravel::CheckInfo info;
    if (!m_isCheckingCode && !m_isTotalDownLoading && !m_isIncrementDownloading) {
      askForChange(&info);
      asked = true;
    }
    if (!followCheck(info)) return false;
    if (asked) {
      noteSuccess(tolvar::Step::ChangeCheck);
      // The service has no newer one, or gave it just now.
      noteSuccess(tolvar::Step::Configuration);
      if (m_isReset == 0) {
        // The table held is the service's, so there is nothing left to download but names that came
        // with it and could not be had then: no later answer would ask for them.
        noteSuccess(tolvar::Step::Download);
        m_internals->codesOwed = m_internals->isFailing(tolvar::Step::CodeTables);
      }
    }
  } catch (const qel::ZU_Exception& error) {
    TOLVAR_LOG(kLogError, 831, "catch qel exception: " << error.what());
    noteError(tolvar::Step::ChangeCheck, error.what());
  } catch (const std::exception& error) {
    TOLVAR_LOG(kLogError, 836, "catch  std exception:" << error.what());
    noteError(tolvar::Step::ChangeCheck, error.what());
  } catch (...) {
    TOLVAR_LOG(kLogError, 841, "UNKOWN EX:");
    noteError(tolvar::Step::ChangeCheck, "unknown failure");
  }
  return asked;
}

/// Once in ten minutes, and then the next ten begin.
bool TolvarAPI::checkIsDue() {
  const std::time_t now = m_internals->clock.time();
  const std::int64_t steady = m_internals->clock.steadyMillis();
  TOLVAR_LOG(kLogDebug, 752,
             "now=" << now << ", last=" << m_lastCheckFileChanged << ", max=" << kCheckSeconds);
  // The steady clock keeps checks coming when the wall clock is set back. The first one comes at
  // once also on a host whose wall clock begins in 1970, or before.
  const bool dueBySteady = m_internals->lastCheckSteady < 0 ||
                           steady - m_internals->lastCheckSteady >= kCheckSeconds * 1000;
  if (now - m_lastCheckFileChanged <= kCheckSeconds - 1 && !dueBySteady) {
    TOLVAR_LOG(kLogDebug, 824, "NOT need check change...");
    return false;
  }
  m_lastCheckFileChanged = now;
  m_internals->lastCheckSteady = steady;
  return true;
}

void TolvarAPI::askForChange(ravel::CheckInfo* info) {
  if (!_pTolvarPrx) throw qel::ZU_Exception("no service to ask before initialize");
  m_proxy_hash_key = m_internals->clock.time();
  const ravel::TolvarPrx proxy = tolvar::selectedServer(*_pTolvarPrx, m_proxy_hash_key);
  ravel::CheckReq req;
  req.contentMd5 = m_cltMd5;
  req.apiVersion = kApiVersion;
  req.confVersion = m_client_conf.getQueryData()->conf.confVersion;
  TOLVAR_LOG(kLogDebug, 766,
             "begin check change, clt_md5=" << m_cltMd5 << ", apiVersion=" << kApiVersion
                                            << ", confVersion=" << req.confVersion
                                            << ", proxy_hash_key=" << m_proxy_hash_key
                                            << ", proxy=" << static_cast<const void*>(proxy.get()));
  proxy->checkChangeAdv(req, *info);
  TOLVAR_LOG(kLogDebug, 773,
             "check change done, net_flow=" << static_cast<int>(info->isNetFlow)
                                            << ", reset=" << static_cast<int>(info->isReset)
                                            << ", updateConf=" << (info->updateConf ? 1 : 0));
  std::lock_guard<std::mutex> hold(m_internals->statusMutex);
  m_internals->status.lastCheck = m_lastCheckFileChanged;
}

/// Does what the service answered; false when it has no time for this client.
bool TolvarAPI::followCheck(const ravel::CheckInfo& info) {
  m_isReset = info.isReset;
  m_internals->overloaded = info.isNetFlow == 1;
  if (m_internals->overloaded) {
    TOLVAR_LOG(kLogWarn, 782, "server net over flow! please retry after a while.");
    m_isTotalDownLoading = false;
    m_isCheckingCode = false;
    noteSuccess(tolvar::Step::ChangeCheck);
    return false;
  }
  if (m_isReset != 0) {
    TOLVAR_LOG(kLogInfo, 792,
               "clt need total download ip info. clt_md5=" << m_cltMd5 << ", svr_ret="
                                                           << static_cast<int>(m_isReset));
    armFullDownload();
  } else {
    // This also ends a download that has been running since the last check: one that needs ten
    // minutes is not getting anywhere.
    if (m_isTotalDownLoading) noteDownloadGivenUp();
    m_isTotalDownLoading = false;
    m_isCheckingCode = false;
  }
  if (info.updateConf) {
    installClientConf();
    TOLVAR_LOG(kLogInfo, 814,
               "clientConf update=" << m_client_conf.getQueryData()->conf.confVersion);
  }
  return true;
}

void TolvarAPI::noteDownloadGivenUp() {
  constexpr const char* kWhat =
      "given up, because it was not complete after 600 seconds; the next change check begins anew";
  TOLVAR_LOG(kLogWarn, __LINE__,
             "download " << kWhat << ". ranges so far: " << m_vIPProperty.size());
  // A failure of the download itself says more.
  if (!m_internals->isFailing(tolvar::Step::Download)) noteError(tolvar::Step::Download, kWhat);
}

void TolvarAPI::armFullDownload() {
  m_isTotalDownLoading = true;
  m_isCheckingCode = true;
  m_tBegin = m_internals->clock.timeOfDay();
  m_currDownloadPos = 0;
  m_internals->downloadArmedSteady = m_internals->clock.steadyMillis();
  m_internals->pagePosition = UINT64_MAX;
  m_internals->furthest = 0;
  m_internals->tableTakenOver = false;
}

void TolvarAPI::installClientConf() {
  ClientConfWrapper& update = m_client_conf.getUpdateData();
  _pTolvarPrx->getConf(update.conf);
  update.citys.clear();
  update.citys.insert(update.conf.simpleLogCitys.begin(), update.conf.simpleLogCitys.end());
  m_client_conf.swap();
}
