#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "platform/clock.h"
#include "platform/exception.h"
#include "records/records.h"
#include "service/table_data.h"
#include "service/table_version.h"
#include "service/usage_log.h"

namespace tolvar::service {

/// The service has no table yet, so there is nothing to download.
class NoTableError : public qel::ZU_Exception {
 public:
  NoTableError() : ZU_Exception("the service holds no table yet") {}
};

/// Whether an empty table may be published; it makes every client forget all it knows.
enum class EmptyTable { Refuse, Allow };

/// The lookup service without a transport: one table version with its codes, the client
/// configuration, and what clients report. All operations may be called from any thread.
///
/// A call works on the version that is current when it begins. Versions replace each other whole;
/// their time stamps increase strictly, so that a client in the middle of a download notices.
class LookupService {
 public:
  explicit LookupService(qel::Clock& clock = qel::systemClock(), UsageLimits limits = {});

  /// Makes `data` the current version and answers it. Its time stamp is the wall clock's second, or
  /// one above the last version's if that is greater. Throws std::invalid_argument as
  /// TableVersion's constructor does, when the table is empty and `empty` does not allow that, or
  /// when no greater time stamp is left; the current version then stays.
  ///
  /// Clients compare digests of ranges: a version that differs from the one before in its codes
  /// only reaches new clients alone. Give a new name a new id (IdRegistry does) and this cannot
  /// happen.
  std::shared_ptr<const TableVersion> publish(TableData data,
                                              EmptyTable empty = EmptyTable::Refuse);

  /// The same with a finished version, for example one from a store. Refuses
  /// (std::invalid_argument) one whose time stamp is not above that of every version before, and a
  /// null one.
  std::shared_ptr<const TableVersion> publish(std::shared_ptr<const TableVersion> version,
                                              EmptyTable empty = EmptyTable::Refuse);

  /// The version served now; null before the first.
  std::shared_ptr<const TableVersion> current() const;

  /// While overloaded, change checks answer isNetFlow 1 and nothing else. Downloads go on.
  void setOverloaded(bool overloaded) noexcept { _overloaded = overloaded; }
  bool overloaded() const noexcept { return _overloaded; }

  /// Sets what clients are configured with. `confVersion` of the argument is ignored: the version
  /// rises by 1 when any other field changes. Answers the version now valid.
  std::int32_t setConf(const ravel::ClientConf& conf);

  /// Sets the configuration with its version, as read back from a store.
  void restoreConf(const ravel::ClientConf& conf);

  // What clients call; the operations of the same names in remote/proxies.h.

  ravel::ClientConf getConf() const;

  /// isReset is 1 when the digest of the request is not that of the current version, 0 without a
  /// table; updateConf is true when the configuration version of the request is another.
  ravel::CheckInfo checkChangeAdv(const ravel::CheckReq& req) const;

  /// The page behind the cursor high * 2^32 + low, as `TableVersion::slice` chooses it. Throws
  /// NoTableError, or std::invalid_argument as `slice` does.
  ravel::downloadInfo totalDownloadIPInfo(std::uint32_t high, std::uint32_t low,
                                          std::uint32_t size) const;

  /// The same pages, for clients that never held a table.
  ravel::downloadInfo FirstTotalDownloadIPInfo(std::uint32_t high, std::uint32_t low,
                                               std::uint32_t size) const;

  /// All code entries of the current version. Throws NoTableError.
  std::vector<ravel::CodeInfo> totalDownloadCode() const;

  void reportCounts(const std::vector<ravel::ReportCount>& counts, std::uint64_t dropped);
  void reportLines(const std::vector<std::string>& lines, std::uint64_t dropped);

  /// What clients have reported since the service began, or since the last takeUsage.
  Usage usage() const { return _usage.snapshot(); }

  /// Gives what clients have reported away, to be kept elsewhere, and forgets it.
  Usage takeUsage() { return _usage.take(); }

 private:
  std::shared_ptr<const TableVersion> currentOrThrow() const;
  void replace(std::shared_ptr<const TableVersion> version, EmptyTable empty);

  qel::Clock& _clock;
  std::atomic<bool> _overloaded{false};
  UsageLog _usage;

  /// Orders publications; held while a version is built. Taken before _mutex.
  std::mutex _publishMutex;

  mutable std::mutex _mutex;
  // Guarded by _mutex, held for a copy or a swap only; _current is written with both mutexes held.
  std::shared_ptr<const TableVersion> _current;
  ravel::ClientConf _conf;
};

}  // namespace tolvar::service
