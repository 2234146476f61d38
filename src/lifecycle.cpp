#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <system_error>

#include "platform/abandon.h"
#include "platform/read_epochs.h"
#include "src/client_internals.h"
#include "src/client_log.h"
#include "src/segment_layout.h"

namespace {

constexpr int kLogFileBytes = 52428800;
constexpr int kLogFiles = 10;
constexpr std::size_t kPositionFileBytes = 9;
constexpr int kReadySeconds = 30;
constexpr int kReadyRoundMillis = 100;
constexpr int kAllReady = 3;
constexpr int kCancelRoundMillis = 20;

void printLine(std::FILE* stream, const std::string& line) {
  const std::string text = line + "\n";
  std::fwrite(text.data(), 1, text.size(), stream);
  std::fflush(stream);
}

std::string takeLine(qel::ZU_ThreadStream& stream, int line) {
  std::string text = "TolvarAPI:" + std::to_string(line) + "]" + stream.str();
  stream.str("");
  return text;
}

/// The file lies in the working directory, which those who meet its name in a message did not
/// choose.
void mapPositionFile(qel::ZU_Mmap& file) {
  try {
    file.mmap("downloadPos.dat", kPositionFileBytes);
  } catch (const qel::ZU_Exception& error) {
    std::error_code ignored;
    const std::string directory = std::filesystem::current_path(ignored).string();
    throw qel::ZU_Exception(std::string(error.what()) + "; it lies in the working directory" +
                            (directory.empty() ? "" : " (" + directory + ")") +
                            ", where the process must be able to write");
  }
}

/// A call that cannot be cancelled ends by itself; what keeps it from being cancelled is no reason
/// to end the process, as an exception out of a destructor would.
template <class Proxy>
void cancelCallsOf(const Proxy& proxy) noexcept {
  try {
    if (proxy) proxy->cancelCalls();
  } catch (...) {
  }
}

/// Why a start that waited in vain did, by the bits of what is ready.
const char* missingTables(int mask) {
  if (mask == 0) return "the service offered neither ranges nor names in time";
  return mask == 1 ? "the service offered no names in time"
                   : "the service offered no ranges in time";
}

}  // namespace

TolvarAPI::TolvarAPI() : TolvarAPI(qel::systemClock()) {}

TolvarAPI::TolvarAPI(qel::Clock& clock)
    : m_has_initialized(0),
      m_report(clock),
      m_simple_key(0),
      m_proxy_hash_key(0),
      m_vectorIP(&m_ip_vector_impl[0]),
      m_shm_key{0, 0, 0},
      m_size(0),
      m_log_initialized(false),
      m_terminated(false),
      m_protocolSeqNo(0),
      m_isCheckingCode(false),
      m_isTotalDownLoading(false),
      m_isIncrementDownloading(false),
      m_isReset(0),
      m_currDownloadPos(0),
      m_cltMd5("0"),
      m_lastCheckDistrictCodeChanged(0),
      m_lastCheckFileChanged(0),
      m_tBegin{},
      m_tEnd{},
      m_destructor_wait(true),
      m_internals(std::make_unique<tolvar::ClientInternals>(clock)) {
  for (int table = 0; table < tolvar::kCodeTables; ++table)
    m_code_vector[table] = &m_code_vector_impl[table][0];
  m_internals->status.digest = m_cltMd5;
}

TolvarAPI::~TolvarAPI() {
  if (m_internals->isForkedCopy()) {
    abandonParents();
    return;
  }
  tolvar::requireNoReadSection();
  // A start that another thread is still at ends first.
  m_internals->destroying = true;
  std::unique_lock<std::mutex> hold(m_internals->initializing, std::try_to_lock);
  while (!hold.owns_lock()) {
    {
      Lock monitor(*this);
      cancelCallsForARound();
    }
    hold.try_lock();
  }
  stopUpdateThread();
}

/// In a forked child: whatever a thread of the parent may have been changing when the process was
/// copied is never looked at again, not even to free it.
void TolvarAPI::abandonParents() noexcept {
  using qel::abandon;
  abandon(m_client_conf);
  abandon(_pTolvarPrx);
  abandon(_pFTolvarPrx);
  abandon(m_cltMd5);
  abandon(m_vIPProperty);
  abandon(m_ip_query_vec);
  for (auto& map : m_code_query_map) abandon(map);
  static_cast<void>(m_internals.release());
}

/// Cancels what is under way and gives it a while to end. The caller holds the monitor.
void TolvarAPI::cancelCallsForARound() {
  cancelCallsOf(_pTolvarPrx);
  cancelCallsOf(_pFTolvarPrx);
  timedWait(kCancelRoundMillis);
}

void TolvarAPI::stopUpdateThread() {
  if (m_internals->isForkedCopy()) return;
  // The update thread may be waiting for this thread's reader, with the monitor in its hands.
  tolvar::requireNoReadSection();
  Lock hold(*this);
  terminate();
  notifyAll();
  // A call under way would keep the thread until its deadline, and the thread may begin one more
  // before it looks at the flag, so calls are cancelled until it has ended.
  while (isAlive() && !m_internals->updateEnded) cancelCallsForARound();
  unlock();
  getThreadControl().join();
  lock();
}

void TolvarAPI::start() {
  try {
    startUpdateThread();
  } catch (const std::exception& error) {
    noteError(tolvar::Step::Initialize, error.what());
    TOLVAR_LIFECYCLE_LOG(kLogError, "start exception:" << error.what());
  }
}

void TolvarAPI::startUpdateThread() {
  m_internals->process = getpid();
  {
    Lock hold(*this);
    m_internals->updateEnded = false;
  }
  qel::ZU_Thread::start();
}

void TolvarAPI::terminate() { m_terminated = true; }

TolvarStatus TolvarAPI::status() const {
  std::unique_lock<std::mutex> hold(m_internals->statusMutex, std::defer_lock);
  if (m_internals->isForkedCopy()) {
    // A thread of the parent that was at it will never be done.
    if (!hold.try_lock()) return {};
  } else {
    hold.lock();
  }
  TolvarStatus status = m_internals->status;
  m_internals->errors.show(&status);
  return status;
}

bool TolvarAPI::initialize(const TolvarAPIOptions& options) {
  if (m_internals->isForkedCopy()) return refuseInFork();
  std::lock_guard<std::mutex> hold(m_internals->initializing);
  try {
    m_init_options = options;
  } catch (const std::exception& error) {
    TOLVAR_LIFECYCLE_LOG(kLogError, "initialize exception:" << error.what());
    return false;
  }
  const TolvarAPIOptions& own = m_init_options;
  return initializeAll(own.comm, own.ip_servant, own.fast_ip_servant,
                       {own.shm_key_1, own.shm_key_2, own.shm_key_3}, own.log_path);
}

bool TolvarAPI::initialize(qel::Communicator* comm, std::string ip_servant,
                           std::string fast_ip_servant, key_t shm_key_1, key_t shm_key_2,
                           std::string log_path, key_t shm_key_3) {
  if (m_internals->isForkedCopy()) return refuseInFork();
  std::lock_guard<std::mutex> hold(m_internals->initializing);
  return initializeAll(comm, ip_servant, fast_ip_servant, {shm_key_1, shm_key_2, shm_key_3},
                       log_path);
}

bool TolvarAPI::refuseInFork() {
  TOLVAR_LIFECYCLE_LOG(
      kLogError,
      "initialize exception:this object belongs to the parent process, which keeps "
      "it current; a forked child makes one of its own");
  return false;
}

/// The caller holds `initializing`.
bool TolvarAPI::initializeAll(qel::Communicator* comm, const std::string& ip_servant,
                              const std::string& fast_ip_servant, const key_t (&keys)[3],
                              const std::string& log_path) {
  m_internals->process = getpid();
  try {
    stopUpdateThread();
    resetUpdateState();
    openLog(log_path);
    {
      std::lock_guard<qel::ZU_ThreadMutex> holdReadiness(m_has_initialized_mutex);
      m_has_initialized = 0;
    }
    if (!connectProxies(comm, ip_servant, fast_ip_servant)) return false;
    mapPositionFile(m_posFile);
    TOLVAR_LIFECYCLE_LOG(kLogDebug, "current download position is " << m_currDownloadPos);
    loadClientConf();
    startReporter();
    InitializeShareMemory(keys[0], keys[1], keys[2]);
    if (m_internals->destroying) return false;
    startUpdateThread();
    noteSuccess(tolvar::Step::Initialize);
    return awaitReadiness();
  } catch (const std::exception& error) {
    noteError(tolvar::Step::Initialize, error.what());
    TOLVAR_LIFECYCLE_LOG(kLogError, "initialize exception:" << error.what());
  } catch (...) {
    noteError(tolvar::Step::Initialize, "unknown failure");
    TOLVAR_LIFECYCLE_LOG(kLogError, "initialize exception.");
  }
  return false;
}

void TolvarAPI::resetUpdateState() {
  m_terminated = false;
  m_isCheckingCode = false;
  m_isTotalDownLoading = false;
  m_isReset = 0;
  m_currDownloadPos = 0;
  m_lastCheckFileChanged = 0;
  m_vIPProperty.clear();
  m_internals->lastCheckSteady = -1;
  m_internals->downloadRetry.succeeded();
  m_internals->codeRetry.succeeded();
  m_internals->codesOwed = false;
  m_internals->overloaded = false;
  {
    std::lock_guard<std::mutex> hold(m_internals->statusMutex);
    m_internals->status.fromImage = false;
    m_internals->status.imageDigest.clear();
  }
  // A digest stands for the segments that an earlier call attached to; the ones to come may differ.
  Lock hold(*this);
  m_cltMd5 = "0";
}

void TolvarAPI::openLog(const std::string& log_path) {
  if (log_path.empty()) {
    m_log_initialized = false;
    return;
  }
  _local.start(1);
  _logger.init(log_path + "/Tolvar/API/Tolvar.API", kLogFileBytes, kLogFiles);
  _logger.modFlag(1, false);
  _logger.modFlag(7, true);
  _logger.setupThread(&_local);
  m_log_initialized = true;
}

bool TolvarAPI::connectProxies(qel::Communicator* comm, const std::string& ip_servant,
                               const std::string& fast_ip_servant) {
  if (ip_servant.find(".FTolvarObj@tcp") != std::string::npos ||
      fast_ip_servant.find(".TolvarObj@tcp") != std::string::npos) {
    TOLVAR_LIFECYCLE_LOG(kLogDebug, "Please check the servantObj: TolvarObj is:"
                                        << ip_servant << ",FTolvarObj is:" << fast_ip_servant);
    noteError(tolvar::Step::Initialize, "ip_servant and fast_ip_servant are swapped");
    return false;
  }
  if (comm == nullptr) throw qel::ZU_Exception("no communicator was given in the options");
  // Both or none: `start` may be called after this has failed.
  ravel::TolvarPrx mainProxy;
  ravel::FTolvarPrx fastProxy;
  comm->stringToProxy(ip_servant, mainProxy);
  comm->stringToProxy(fast_ip_servant, fastProxy);
  if (!mainProxy || !fastProxy) {
    throw qel::ZU_Exception("the communicator made no proxy for the object \"" +
                            (mainProxy ? fast_ip_servant : ip_servant) + "\"");
  }
  Lock hold(*this);
  _pTolvarPrx.swap(mainProxy);
  _pFTolvarPrx.swap(fastProxy);
  return true;
}

void TolvarAPI::loadClientConf() {
  // A service that is down must not keep a host with a complete image from starting, so this one
  // failure leaves the default configuration in place and the readiness wait decides.
  try {
    installClientConf();
    noteSuccess(tolvar::Step::Configuration);
  } catch (const std::exception& error) {
    noteError(tolvar::Step::Configuration, error.what());
    TOLVAR_LIFECYCLE_LOG(kLogError, "initialize exception:" << error.what());
  } catch (...) {
    noteError(tolvar::Step::Configuration, "unknown failure");
    TOLVAR_LIFECYCLE_LOG(kLogError, "initialize exception.");
  }
}

void TolvarAPI::startReporter() {
  m_report.stop();
  m_report.setTolvarPrx(_pTolvarPrx);
  m_report.set_destructor_wait(m_destructor_wait);
  m_report.start();
}

bool TolvarAPI::awaitReadiness() {
  qel::Clock& clock = m_internals->clock;
  const std::int64_t begin = clock.steadyMillis() / 1000;
  std::int64_t now = begin;
  int mask = 0;
  do {
    std::lock_guard<qel::ZU_ThreadMutex> hold(m_has_initialized_mutex);
    if (m_has_initialized != kAllReady)
      clock.wait(m_has_initialized_cond, m_has_initialized_mutex, kReadyRoundMillis);
    mask = m_has_initialized;
    now = clock.steadyMillis() / 1000;
  } while (mask != kAllReady && begin + kReadySeconds > now && !m_internals->destroying);

  std::string digest;
  {
    Lock hold(*this);
    digest = m_cltMd5;
  }
  TOLVAR_LIFECYCLE_LOG(kLogInfo, "TolvarAPI initialize finish, m_has_initialized="
                                     << mask << ", clt_md5=" << digest << ", cost=" << now - begin
                                     << "s.");
  if (mask == kAllReady) return true;
  stopUpdateThread();
  // What failed meanwhile says more.
  if (!status().failing) {
    noteError(tolvar::Step::Initialize,
              m_internals->overloaded ? "the service is overloaded and sends no tables; try later"
                                      : missingTables(mask));
  }
  return false;
}

void TolvarAPI::writeLog(int level, int line) {
  const std::string text = takeLine(_osLog, line);
  if (m_log_initialized) {
    _logger.log(level) << text << std::endl;
  } else {
    printLine(level == kLogError ? stderr : stdout, text);
  }
}

void TolvarAPI::writeLifecycleLog(int level, int line) {
  const std::string text = takeLine(_osLog, line);
  if (m_log_initialized) {
    _logger.log(level) << text << std::endl;
  } else {
    printLine(stdout, text);
  }
}
