#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "records/records.h"
#include "service/id_registry.h"
#include "service/store/sqlite.h"
#include "service/table_data.h"
#include "service/table_version.h"

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
  std::string source;     ///< what was imported, or "rollback to version N"
  std::string createdAt;  ///< UTC, "2026-01-31 23:59:59"
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

  /// Adds a version and the ids given with it; then removes all but the last `keep` versions (1 or
  /// more). The time stamp is `now` (seconds since 1970), or one above the newest version's.
  StoredVersion add(const TableData& data, const IdRegistry& ids, const std::string& source,
                    std::int64_t now, std::size_t keep);

  /// Makes the content of version `number` the newest version again.
  StoredVersion rollback(std::int64_t number, std::int64_t now);

  /// Reads a version and checks that its digest is the one it was stored with.
  std::shared_ptr<const TableVersion> load(const StoredVersion& version) const;

  IdRegistry ids() const;

  ravel::ClientConf conf() const;

  /// Stores the configuration; its version rises by 1 when anything else changed. Answers what is
  /// valid then.
  ravel::ClientConf setConf(ravel::ClientConf conf);

  /// Changes whenever another connection has written; for noticing an import without reading.
  std::int64_t changeMark() const;

  /// Adds hits and lines that clients reported; keeps the last `lines` lines.
  void addUsage(const std::vector<ravel::ReportCount>& counts,
                const std::vector<std::string>& lines, std::uint64_t droppedHits,
                std::uint64_t droppedLines, std::size_t keepLines);

  struct StoredUsage {
    std::vector<ravel::ReportCount> counts;  ///< most hits first
    std::vector<std::string> lines;          ///< oldest first
    std::uint64_t droppedHits = 0;
    std::uint64_t droppedLines = 0;
  };
  StoredUsage usage() const;

  /// What is wrong with the file, as far as SQLite and the digests tell; empty when nothing is.
  std::vector<std::string> check() const;

 private:
  void prepare(Mode mode);
  void writeRanges(std::int64_t dataset, const std::vector<ravel::IPProperty>& ranges);
  void writeCodes(std::int64_t dataset, const std::vector<ravel::CodeInfo>& codes);
  void writeIds(const IdRegistry& ids);
  std::uint32_t nextTimesTamp(std::int64_t now) const;
  void removeOld(std::size_t keep);

  mutable SqliteConnection _connection;
};

}  // namespace tolvar::service
