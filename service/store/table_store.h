#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "records/records.h"
#include "service/id_registry.h"
#include "service/store/sqlite.h"
#include "service/table_version.h"
#include "service/usage_log.h"

namespace tolvar::service {

/// One version in the store. A rollback makes a new version with the content of an older one, so
/// that time stamps rise and every client follows.
struct StoredVersion {
  std::int64_t number = 0;      ///< counts versions from 1
  std::uint32_t timesTamp = 0;  ///< high half of the cursors
  std::int64_t dataset = 0;     ///< its content; shared after a rollback
  std::string digest;           ///< of the ranges, 32 hexadecimal digits
  std::int64_t ranges = 0;
  std::int64_t addresses = 0;  ///< covered by the ranges
  std::int64_t codes = 0;
  std::string codesDigest;  ///< of the codes, 32 hexadecimal digits
  std::string source;       ///< what was imported, or "rollback to version N"
  std::string createdAt;    ///< UTC, "2026-01-31 23:59:59"
};

/// What the service keeps on disk: tables in versions, the ids given to names, the clients'
/// configuration, and what clients reported. One SQLite file in WAL mode; every change is one
/// transaction, so a process killed at any moment leaves the state before or after it.
///
/// Used by one thread at a time. Several processes may have the file open: `tolvard serve` reads
/// while `tolvard import` writes. All operations throw StoreError.
class TableStore {
 public:
  enum class Mode { ReadOnly, ReadWrite, Create };

  /// Opens `path`; with Create an absent file is made. Refuses a file that is something else.
  TableStore(const std::string& path, Mode mode);

  /// All versions, the newest last. The newest is the one served.
  std::vector<StoredVersion> versions() const;
  std::optional<StoredVersion> newest() const;
  std::optional<StoredVersion> find(std::int64_t number) const;

  /// What an import brings.
  struct NewVersion {
    const TableVersion& table;  ///< its time stamp does not count
    const IdRegistry& ids;      ///< those of the store and those given now
    std::string source;
    std::int64_t now = 0;   ///< seconds since 1970
    std::size_t keep = 1;   ///< versions that stay, this one included; 1 or more
    std::int64_t base = 0;  ///< newest version when the import began, 0 without one
  };

  /// Adds a version and the ids given with it; then removes all but the last `keep` versions. The
  /// time stamp is `now`, or one above the newest version's. Refuses when `base` is not the newest
  /// version any more, or an id was given away meanwhile: what was compared no longer holds.
  StoredVersion add(const NewVersion& wanted);

  /// Makes the content of version `number` the newest version again.
  StoredVersion rollback(std::int64_t number, std::int64_t now);

  /// Reads a version and checks that its digests are the ones it was stored with. One that an
  /// import has removed meanwhile is not there, which is no damage.
  std::shared_ptr<const TableVersion> load(const StoredVersion& version) const;

  struct LoadedVersion {
    StoredVersion stored;
    std::shared_ptr<const TableVersion> table;
  };

  /// The newest version with its content, unless it is the one that `isKnown` knows: then, and
  /// without any version, nothing. Sees one state of the file, whatever is imported meanwhile.
  std::optional<LoadedVersion> loadNewest(
      const std::function<bool(const StoredVersion&)>& isKnown) const;

  IdRegistry ids() const;

  ravel::ClientConf conf() const;

  /// Stores the configuration; its version rises by 1 when anything else changed. Answers what is
  /// valid then.
  ravel::ClientConf setConf(const ravel::ClientConf& wanted);

  /// The same with what `change` makes of the configuration that is valid now. Nobody else writes
  /// between the two; what `change` throws leaves everything as it was.
  ravel::ClientConf changeConf(const std::function<void(ravel::ClientConf&)>& change);

  /// Changes whenever another connection has written; for noticing an import without reading.
  std::int64_t changeMark() const;

  /// Adds what clients reported, within `limits`: hits of one name too many count as dropped, the
  /// oldest lines go. Sums saturate at 2^63 - 1.
  void addUsage(const Usage& reported, const UsageLimits& limits);

  /// What clients reported so far; names with the most hits first.
  Usage usage() const;

  /// Prepares the connection for small writes next to a running service: they wait for another
  /// writer for at most `busyMillis`, and one that the machine's end cuts off may be lost.
  void relaxWrites(int busyMillis);

  /// Moves what was written into the main file and cuts the write-ahead log, as far as readers
  /// allow that now.
  void checkpoint() noexcept;

  /// Makes what another thread does with this object now fail soon.
  void interrupt() noexcept { _connection.interrupt(); }

  /// What is wrong with the file, as far as SQLite and the digests tell; empty when nothing is.
  std::vector<std::string> check() const;

 private:
  void prepare(Mode mode);
  bool isEmpty() const;
  [[noreturn]] void failAbsent(std::int64_t number) const;
  void createSchema();
  void checkBase(std::int64_t base) const;
  std::int64_t addDataset(const TableVersion& table);
  void addVersion(std::int64_t dataset, const std::string& source, std::int64_t now);
  void writeRanges(std::int64_t dataset, const std::vector<ravel::IPProperty>& ranges);
  void writeCodes(std::int64_t dataset, const std::vector<ravel::CodeInfo>& codes);
  void writeIds(const IdRegistry& ids);
  std::vector<ravel::IPProperty> readRanges(const StoredVersion& version) const;
  std::vector<ravel::CodeInfo> readCodes(const StoredVersion& version) const;
  std::uint64_t addHits(const std::vector<ravel::ReportCount>& counts, std::size_t names);
  std::uint32_t nextTimesTamp(std::int64_t now) const;
  void checkStructure(std::vector<std::string>& faults) const;
  void removeOld(std::size_t keep);

  mutable SqliteConnection _connection;
};

}  // namespace tolvar::service
