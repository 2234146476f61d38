#pragma once

#include <sys/time.h>
#include <sys/types.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <ctime>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <unordered_map>
#include <vector>

#include "include/ConfigDataWrapper.h"
#include "include/TolvarAPIOptions.h"
#include "include/lookup_types.h"
#include "include/memVector.h"
#include "include/segment_types.h"
#include "log/logger.h"
#include "log/thread_stream.h"
#include "platform/clock.h"
#include "platform/mmap.h"
#include "platform/read_epochs.h"
#include "platform/shm.h"
#include "platform/thread.h"
#include "records/records.h"
#include "remote/communicator.h"
#include "report/client_report.h"

namespace tolvar {
struct ClientInternals;
class RetryBackoff;
enum class Step;
enum class ImageLock;
struct ImageContent;
struct LookupSnapshot;
class ClientTestAccess;
}  // namespace tolvar

/// What a client knows of itself; a copy, taken at one moment.
struct TolvarStatus {
  bool ipReady = false;             ///< the IP table answers
  bool codesReady = false;          ///< the code tables answer
  bool fromImage = false;           ///< the start found a complete image in shared memory
  std::string imageDigest;          ///< of the IP table in that image, empty without one
  std::string digest;               ///< of the IP table held, "0" before the first
  std::size_t ranges = 0;           ///< ranges that lookups search
  std::size_t codeEntries = 0;      ///< names in all eight code tables
  std::int64_t downloadMillis = 0;  ///< from arming the last full download to its last page
  std::int64_t publishMillis = 0;   ///< writing the last download into both segments
  std::uint64_t publications = 0;   ///< downloads written into both segments
  /// Downloads of the code tables whose names answer. One comes with every download of the IP
  /// table, before or after it: after both, ids and names are of one version.
  std::uint64_t codePublications = 0;
  std::time_t lastCheck = 0;      ///< wall time of the last answered change check, 0 before it
  std::time_t lastPublished = 0;  ///< wall time at which this process last took over a table
  /// Something failed and has not succeeded since: the start, its configuration or shared memory, a
  /// change check, the download, the code tables. The client tries all but the start again.
  bool failing = false;
  /// Text of the last failure, of one that goes on if any does; kept when it is over. Empty: none.
  std::string lastError;
  std::time_t lastErrorAt = 0;  ///< wall time of that failure, 0 if none
};

/// One version of all tables, held for as long as the object lives: many lookups then agree with
/// each other, and names come without copies. Lives on the stack of one thread, for a short time: a
/// table that is replaced stays in memory, and its replacement is not complete, until every reader
/// of it is gone. The thread destroys its readers before it destroys a client or calls `initialize`
/// of one, which would wait for them for ever: the process aborts with a message. Counts no hits
/// and samples nothing. No operation allocates, locks, waits or throws.
class TolvarReader {
 public:
  TolvarReader(TolvarReader&&) noexcept = default;
  TolvarReader& operator=(TolvarReader&&) = delete;

  /// Ids of the range that holds `ip` (host order). False, and `*info` untouched, when none does.
  bool getIPInfo(std::uint32_t ip, ravel::IPInfo* info) const noexcept;

  /// Names of the range that holds `ip`. False, and `*names` untouched, when none does.
  bool getIPInfo(std::uint32_t ip, IPNameView* names) const noexcept;

  /// Looks `ips` (host order) up, with the memory accesses of many of them under way at once.
  /// `infos` and `found` have room for as many: found[i] becomes 1 and infos[i] the ids, or 0 and
  /// all zeros. Answers how many were found.
  std::size_t getIPInfoBatch(std::span<const std::uint32_t> ips, ravel::IPInfo* infos,
                             std::uint8_t* found) const noexcept;

 private:
  friend class TolvarAPI;
  TolvarReader(const tolvar::ClientInternals& internals, tolvar::ReadSection section) noexcept;

  /// For a thread's first reader and for nested ones.
  static TolvarReader otherwise(const tolvar::ClientInternals& internals) noexcept;

  tolvar::ReadSection _section;  // first, so that it covers the load of _tables
  const tolvar::LookupSnapshot* _tables;
};

/// Answers where an IPv4 address lies, from a table that all processes of the host share and that a
/// thread of this object keeps current.
///
/// Life: construct, `initialize` once (true: ready), look up from any thread, destroy. Lookups are
/// allowed at any time, before `initialize` as well: they then find nothing. They take no lock, do
/// not wait, and see one complete table each, also while a newer one is being published.
/// `initialize`, `start`, `terminate` and destruction belong to one owning thread; destruction
/// comes after the last lookup has returned. Two calls of `initialize` at once take turns, and a
/// destruction during one ends it and waits for it. No public operation lets an exception out.
///
/// Fork: a child forked after `initialize` looks up in the tables of that moment and may destroy
/// the object; nothing refreshes it there, and `initialize` on it answers false. For current tables
/// the child makes an object of its own (over gRPC not always: see GrpcCommunicator, Fork).
///
/// Destruction: the update thread is stopped and joined first; then the members go in reverse order
/// of declaration. The reporter holds the service's proxy by itself and delivers what is left
/// within two seconds, so the communicator must still work; the log, which all others write to,
/// goes last.
class TolvarAPI : public qel::ZU_Thread,
                  public qel::ZU_Monitor<qel::ZU_ThreadMutex, qel::ZU_ThreadCond> {
 public:
  TolvarAPI();
  ~TolvarAPI() override;

  // --- Life cycle -------------------------------------------------------------------------------

  /// Sets up log, proxies, configuration, reporter, shared memory and update thread, and waits up
  /// to 30 seconds until the tables are usable. True when they are. False at once for swapped
  /// object names or a failed step, false after the wait when no table could be had; the log and
  /// `status` say why. A second call stops what runs and repeats every step.
  bool initialize(const TolvarAPIOptions& options);
  bool initialize(qel::Communicator* comm, std::string ip_servant, std::string fast_ip_servant,
                  key_t shm_key_1, key_t shm_key_2, std::string log_path, key_t shm_key_3);

  /// Starts the update thread; `initialize` does it. Nothing but an error in `status` and log comes
  /// of it where the thread runs already, or where `initialize` has not said whom to ask. After an
  /// `initialize` that failed on its segments the tables stay in this process; after `terminate`,
  /// or one that waited in vain, only `initialize` brings the thread back.
  void start();

  /// Asks the update thread to end after its current pass. Neither wakes nor joins it.
  void terminate();

  /// State of the client; takes a lock that no lookup takes. Any thread. Throws std::bad_alloc.
  TolvarStatus status() const;

  // --- Lookups: any thread, no lock -------------------------------------------------------------
  //
  // What they write into (`info`, `msg`, `out`, `infos`, `found`) must not be null.

  /// Ids of the range that holds `ip` (host order). False, and `*info` untouched, when none does.
  /// Allocates nothing, calls nothing of the operating system.
  bool getIPInfo(std::uint32_t ip, ravel::IPInfo* info);

  /// Names of the range that holds `ip`; counts the hit when the service asked for statistics.
  bool getIPInfo(std::uint32_t ip, IPHumanMessage* msg);

  /// The tables as they are now, for several lookups or for names without copies.
  TolvarReader read() const noexcept;

  /// Many addresses against one version of the table; see TolvarReader::getIPInfoBatch.
  std::size_t getIPInfoBatch(std::span<const std::uint32_t> ips, ravel::IPInfo* infos,
                             std::uint8_t* found) const noexcept;

  /// As the two `getIPInfo`, for a dotted quad. Text that is none is looked up as 0.0.0.0.
  bool getIPInfoFromStr(const std::string& ip, ravel::IPInfo* info);
  bool getIPInfoFromStr(const std::string& ip, IPHumanMessage* msg);

  /// Name of an id; empty when unknown. The forms that answer a country, province, city or operator
  /// count a hit when the service asked for statistics; the forms that write into `*out` never do.
  std::string getCountryByID(std::uint32_t id);
  std::string getProvinceByID(std::uint32_t id);
  std::string getCityByID(std::uint32_t id);
  std::string getDistrictByID(std::uint64_t id);
  std::string getExtendByID(std::uint32_t id);
  std::string getOperByID(std::uint32_t id);
  std::string getNettypeByID(std::uint32_t id);
  std::string getApnByID(std::uint32_t id);
  std::string getFlableByID(std::uint32_t id);
  void getCountryByID(std::uint32_t id, std::string* out);
  void getProvinceByID(std::uint32_t id, std::string* out);
  void getCityByID(std::uint32_t id, std::string* out);
  void getDistrictByID(std::uint64_t id, std::string* out);
  void getExtendByID(std::uint32_t id, std::string* out);
  void getOperByID(std::uint32_t id, std::string* out);
  void getNettypeByID(std::uint32_t id, std::string* out);
  void getApnByID(std::uint32_t id, std::string* out);
  void getFlableByID(std::uint32_t id, std::string* out);

 protected:
  /// A client whose time comes from `clock`, which must outlive it.
  explicit TolvarAPI(qel::Clock& clock);

  /// The update thread's body.
  void run() override;

  /// Stops the update thread and waits for its end. A derived class that overrides a step calls
  /// this first in its destructor.
  void stopUpdateThread();

 private:
  friend class tolvar::ClientTestAccess;

  struct MemoryHolder {
    ProlatePointer ip_ptr;
    ProlatePointer code_ptr[8];
  };

  // --- Life cycle (lifecycle.cpp) ---
  bool initializeAll(qel::Communicator* comm, const std::string& ip_servant,
                     const std::string& fast_ip_servant, const key_t (&keys)[3],
                     const std::string& log_path);
  bool refuseInFork();
  void startUpdateThread();
  void cancelCallsForARound();
  void abandonParents() noexcept;
  void openLog(const std::string& log_path);
  bool connectProxies(qel::Communicator* comm, const std::string& ip_servant,
                      const std::string& fast_ip_servant);
  void loadClientConf();
  void startReporter();
  void resetUpdateState();
  bool awaitReadiness();
  void writeLog(int level, int line);
  void writeLifecycleLog(int level, int line);

  // --- Lookups (lookup.cpp, names.cpp) ---
  bool binarySearch(std::uint32_t ip, VALUE* value);
  bool simple();
  void reportLog(const std::string& text);
  void reportStatistic(ravel::ReportType type, const std::string& name);
  std::string GetCodeInfoById(int type, std::uint64_t id);
  void GetCodeInfoById(int type, std::uint64_t id, std::string* out);

  // --- Shared memory (segments.cpp, segment_words.cpp, image_lock.cpp, unshared.cpp, growth.cpp,
  //     mirror.cpp) ---
  void InitializeShareMemory(key_t key1, key_t key2, key_t key3);
  void beginWithImage();
  void refuseForeignRecord();
  bool ReadShareMemorySize(std::size_t* size);
  void WriteShareMemorySize(std::size_t size);
  void ReadMemoryHead(int shm_index, MemoryHead* head);
  void WriteMemoryHead(int shm_index, const MemoryHead& head);
  static std::size_t CalculateNextSize(std::size_t n);
  void attachImage(int* ready, tolvar::ImageContent* image);
  std::size_t totalSize();
  void attachSegment(int shm_index, std::size_t total);
  bool connectRegions(int shm_index);
  void layRegions(int shm_index, std::size_t total, bool connect_success);
  bool readImage(int shm_index, tolvar::ImageContent* image);
  void takeOverImage(tolvar::ImageContent& image);
  void useSegment(int shm_index);
  tolvar::ImageLock acquireImageLock(int milliseconds);
  bool lockImage();
  bool lockImageForStart();
  void noteShared() noexcept;
  void attachForStart(int* ready, tolvar::ImageContent* image);
  bool attachLate();
  void shareOwnTables();
  bool hasRoom(const tolvar::RetryBackoff& retry, const std::function<void()>& prepare);
  bool strangersBehindKeys() const noexcept;
  void forgetSegments() noexcept;
  void refreshAttachments();
  bool attachAgain(int shm_index);
  void ResizeShareMemory(int shm_index, std::size_t size);
  void replaceSegment(int shm_index, std::size_t next, qel::ZU_Shm* old);
  void keepContent(int shm_index, qel::ZU_Shm& old);
  void ResizeIpBuffer(int shm_index, std::size_t count);
  void ResizeCodeBuffer(int shm_index, int code_index, std::size_t count);
  void CopyShareMemory(int from, int to);
  void copyImage(int from, int to, const MemoryHead& announced);
  void copyIntoLarger(int from, int to);
  std::size_t endOfRegions(int shm_index) const;
  void mirrorImage(int from, int to);
  void beginPublication(int target, std::uint32_t MemoryHead::*half);
  void setHalf(int shm_index, std::uint32_t MemoryHead::*half, MemoryStatus status);
  void setPending(int shm_index);
  void walkRegions(int shm_index);
  void moveRegions(int shm_index, int first, std::size_t distance);

  // --- Update thread (update_thread.cpp, change_check.cpp, download.cpp, publish.cpp,
  //     code_sync.cpp). The steps run on the update thread only. ---
  virtual bool checkChange();
  virtual bool totalDownloadRequest();
  virtual bool checkCodeChangeRequest();
  void totalWriteData2Shm();
  void CalculateMd5FromShareMemory();
  bool checkIsDue();
  void askForChange(ravel::CheckInfo* info);
  bool followCheck(const ravel::CheckInfo& info);
  void noteDownloadGivenUp();
  void armFullDownload();
  void installClientConf();
  /// True when the table is complete.
  bool gatherPage(ravel::downloadInfo& page, std::uint64_t maxIndex);
  void takeRanges(ravel::vIPProperty& ranges, std::uint64_t left);
  void advanceTo(std::uint64_t reached, std::uint64_t maxIndex, bool afresh);
  void makeRoom(std::size_t ranges, std::uint64_t left);
  void finishDownload();
  void retryLater(tolvar::RetryBackoff& retry, tolvar::Step step, const char* what);
  void noteError(tolvar::Step step, const char* what) noexcept;
  void noteSuccess(tolvar::Step step) noexcept;
  void takeDigest(const std::string& digest, std::size_t ranges);
  std::string writeTable(int target, const ravel::vIPProperty& ranges);
  void takeOverUnshared(std::size_t count);
  void takeOverTable(int target, const std::string& digest);
  void makeRoomForCodes(int target, const std::vector<ravel::CodeInfo>& codes);
  void writeCodes(int target, const std::vector<ravel::CodeInfo>& codes);
  void takeOverCodes(int target, const std::vector<ravel::CodeInfo>& codes);
  void announceReady(int bit);
  int readiness() const;

  // --- Members. Unless said otherwise they belong to the thread that runs `initialize`, and from
  //     `start` on to the update thread. ---
  qel::ZU_Logger<qel::ZU_DefaultWriteT, qel::ZU_RollBySize> _logger;  // any thread
  qel::ZU_LoggerThreadGroup _local;                                   // any thread
  int m_has_initialized;  // guarded by m_has_initialized_mutex
  mutable qel::ZU_ThreadMutex m_has_initialized_mutex;
  qel::ZU_ThreadCond m_has_initialized_cond;
  ConfigDataWrapper<ClientConfWrapper> m_client_conf;  // read by any thread
  ClientReport m_report;                               // any thread
  std::atomic<std::int64_t> m_simple_key;              // any thread
  TolvarAPIOptions m_init_options;
  std::int64_t m_proxy_hash_key;
  ravel::TolvarPrx _pTolvarPrx;  // both proxies are written under the monitor
  ravel::FTolvarPrx _pFTolvarPrx;
  MemoryHead m_memory_head[2];
  IPVector m_ip_vector_impl[2];
  IPVector* m_vectorIP;
  CodeVector m_code_vector_impl[8][2];
  CodeVector* m_code_vector[8];
  MemoryHolder m_holder[2];
  key_t m_shm_key[3];
  qel::ZU_Shm m_shm[2];
  std::string m_serverHost;
  std::string m_serverPort;
  int m_size;
  std::string m_recvBuffer;
  std::string m_sendBuffer;
  std::atomic<bool> m_log_initialized;  // any thread
  qel::ZU_ThreadStream _osLog;          // any thread: composes per thread
  std::atomic<bool> m_terminated;       // any thread
  std::uint32_t m_protocolSeqNo;
  bool m_isCheckingCode;
  bool m_isTotalDownLoading;
  bool m_isIncrementDownloading;
  std::int8_t m_isReset;
  std::uint64_t m_currDownloadPos;
  std::string m_cltMd5;  // written under the monitor
  std::time_t m_lastCheckDistrictCodeChanged;
  std::time_t m_lastCheckFileChanged;
  ravel::vIPProperty m_vIPProperty;
  qel::ZU_Mmap m_posFile;
  timeval m_tBegin;
  timeval m_tEnd;
  /// The table as records, the source that the published index is built from.
  ravel::vIPProperty m_ip_query_vec;
  /// The names as records, the source that the published name tables are built from.
  std::unordered_map<std::uint64_t, ravel::CodeInfo> m_code_query_map[8];
  bool m_destructor_wait;

  /// What lookups read, and helpers that a host need not see.
  std::unique_ptr<tolvar::ClientInternals> m_internals;
};
