#include "service/store/table_store.h"

#include <algorithm>
#include <ctime>

#include "platform/md5.h"
#include "service/import_guard.h"
#include "service/store/schema.h"

namespace tolvar::service {
namespace {

SqliteConnection::Mode connectionMode(TableStore::Mode mode) {
  switch (mode) {
    case TableStore::Mode::ReadOnly: return SqliteConnection::Mode::ReadOnly;
    case TableStore::Mode::ReadWrite: return SqliteConnection::Mode::ReadWrite;
    default: return SqliteConnection::Mode::Create;
  }
}

std::string utcText(std::int64_t seconds) {
  const std::time_t time = seconds;
  std::tm parts{};
  gmtime_r(&time, &parts);
  char text[32];
  std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &parts);
  return text;
}

constexpr const char* kSelectVersions =
    "SELECT version.version, time_stamp, dataset.dataset, digest, ranges, addresses, codes, "
    "codes_digest, source, created_at FROM version JOIN dataset USING (dataset) ";

StoredVersion versionOf(const SqliteStatement& row) {
  StoredVersion version;
  version.number = row.number(0);
  version.timesTamp = static_cast<std::uint32_t>(row.number(1));
  version.dataset = row.number(2);
  version.digest = row.text(3);
  version.ranges = row.number(4);
  version.addresses = row.number(5);
  version.codes = row.number(6);
  version.codesDigest = row.text(7);
  version.source = row.text(8);
  version.createdAt = row.text(9);
  return version;
}

/// MD5 of all entries, each as type, id, length of the name, name.
std::string codesDigestOf(const std::vector<ravel::CodeInfo>& codes) {
  qel::ZU_MD5 digest;
  for (const ravel::CodeInfo& code : codes) {
    const std::string entry = std::to_string(code.codeType) + ' ' + std::to_string(code.ID) + ' ' +
                              std::to_string(code.content.size()) + ' ' + code.content;
    digest.update(entry.data(), entry.size());
  }
  return digest.finishHex();
}

/// What to do about one damaged version.
constexpr const char* kRemedy = "; roll back to another version, or restore the file from a backup";

constexpr std::int64_t kMostHits = INT64_MAX;

std::int64_t clamped(std::uint64_t hits) {
  return static_cast<std::int64_t>(std::min<std::uint64_t>(hits, kMostHits));
}

}  // namespace

TableStore::TableStore(const std::string& path, Mode mode)
    : _connection(path, connectionMode(mode)) {
  prepare(mode);
}

bool TableStore::isEmpty() const {
  // Another process may be making the tables right now.
  const SqliteSnapshot snapshot(_connection);
  const std::int64_t application = _connection.number("PRAGMA application_id").value_or(0);
  const std::int64_t schema = _connection.number("PRAGMA user_version").value_or(0);
  const std::int64_t tables = _connection.number("SELECT count(*) FROM sqlite_schema").value_or(0);
  if (application == 0 && tables == 0) return true;
  if (application != kApplicationId) {
    throw StoreError(_connection.path() +
                     ": the database belongs to another program; "
                     "name another file");
  }
  if (schema > kSchemaVersion)
    throw StoreError(_connection.path() + ": a newer version of this program wrote the file");
  return false;
}

void TableStore::prepare(Mode mode) {
  const bool isNew = isEmpty();
  if (isNew && mode != Mode::Create)
    throw StoreError(_connection.path() + ": the file is empty; an import fills it");
  // Some ways to copy a database leave the log behind.
  if (mode != Mode::ReadOnly) _connection.useWriteAheadLog();
  if (isNew) createSchema();
  _connection.execute("PRAGMA foreign_keys = ON");
  if (mode != Mode::ReadOnly) _connection.execute("PRAGMA journal_size_limit = 67108864");
}

void TableStore::createSchema() {
  SqliteTransaction transaction(_connection);
  // Another process may have been faster.
  if (_connection.number("SELECT count(*) FROM sqlite_schema").value_or(0) == 0) {
    _connection.execute(kSchema);
    _connection.execute(("PRAGMA application_id = " + std::to_string(kApplicationId)).c_str());
    _connection.execute(("PRAGMA user_version = " + std::to_string(kSchemaVersion)).c_str());
  }
  transaction.commit();
}

std::vector<StoredVersion> TableStore::versions() const {
  SqliteStatement rows(_connection,
                       (std::string(kSelectVersions) + "ORDER BY version.version").c_str());
  std::vector<StoredVersion> versions;
  while (rows.step()) versions.push_back(versionOf(rows));
  return versions;
}

std::optional<StoredVersion> TableStore::newest() const {
  SqliteStatement rows(
      _connection,
      (std::string(kSelectVersions) + "ORDER BY version.version DESC LIMIT 1").c_str());
  if (!rows.step()) return std::nullopt;
  return versionOf(rows);
}

std::optional<StoredVersion> TableStore::find(std::int64_t number) const {
  SqliteStatement rows(_connection,
                       (std::string(kSelectVersions) + "WHERE version.version = ?").c_str());
  rows.bindAll(number);
  if (!rows.step()) return std::nullopt;
  return versionOf(rows);
}

void TableStore::failAbsent(std::int64_t number) const {
  throw StoreError(_connection.path() + ": there is no version " + std::to_string(number) +
                   "; `tolvard versions` lists them");
}

std::uint32_t TableStore::nextTimesTamp(std::int64_t now) const {
  const std::int64_t last = _connection.number("SELECT max(time_stamp) FROM version").value_or(0);
  const std::int64_t next = std::max(now, last + 1);
  if (next < 1 || next > UINT32_MAX) {
    throw StoreError(_connection.path() + ": no time stamp is left above " + std::to_string(last) +
                     "; is the clock right?");
  }
  return static_cast<std::uint32_t>(next);
}

void TableStore::checkBase(std::int64_t base) const {
  const std::optional<StoredVersion> last = newest();
  if ((last ? last->number : 0) != base) {
    throw StoreError(_connection.path() +
                     ": another import or rollback finished meanwhile; nothing was changed: "
                     "run it again");
  }
}

std::int64_t TableStore::addDataset(const TableVersion& table) {
  SqliteStatement insert(_connection,
                         "INSERT INTO dataset (digest, ranges, addresses, codes, codes_digest) "
                         "VALUES (?, ?, ?, ?, ?) RETURNING dataset");
  insert.bindAll(table.digest(), static_cast<std::int64_t>(table.ranges().size()),
                 static_cast<std::int64_t>(addressesOf(table.ranges())),
                 static_cast<std::int64_t>(table.codes().size()), codesDigestOf(table.codes()));
  insert.step();
  const std::int64_t dataset = insert.number(0);
  insert.step();
  return dataset;
}

void TableStore::addVersion(std::int64_t dataset, const std::string& source, std::int64_t now) {
  SqliteStatement insert(
      _connection,
      "INSERT INTO version (time_stamp, dataset, source, created_at) VALUES (?, ?, ?, ?)");
  insert.run(nextTimesTamp(now), dataset, source, utcText(now));
}

StoredVersion TableStore::add(const NewVersion& wanted) {
  SqliteTransaction transaction(_connection);
  checkBase(wanted.base);
  const std::int64_t dataset = addDataset(wanted.table);
  writeRanges(dataset, wanted.table.ranges());
  writeCodes(dataset, wanted.table.codes());
  writeIds(wanted.ids);
  addVersion(dataset, wanted.source, wanted.now);
  removeOld(std::max<std::size_t>(wanted.keep, 1));
  const StoredVersion added = newest().value();
  transaction.commit();
  return added;
}

StoredVersion TableStore::rollback(std::int64_t number, std::int64_t now) {
  SqliteTransaction transaction(_connection);
  const std::optional<StoredVersion> wanted = find(number);
  if (!wanted) failAbsent(number);
  addVersion(wanted->dataset, "rollback to version " + std::to_string(number), now);
  const StoredVersion added = newest().value();
  transaction.commit();
  return added;
}

void TableStore::removeOld(std::size_t keep) {
  SqliteStatement(_connection,
                  "DELETE FROM version WHERE version NOT IN "
                  "(SELECT version FROM version ORDER BY version DESC LIMIT ?)")
      .run(static_cast<std::int64_t>(keep));
  _connection.execute("DELETE FROM dataset WHERE dataset NOT IN (SELECT dataset FROM version)");
}

void TableStore::writeRanges(std::int64_t dataset, const std::vector<ravel::IPProperty>& ranges) {
  SqliteStatement insert(_connection, "INSERT INTO ip_range VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?)");
  for (const ravel::IPProperty& range : ranges) {
    insert.run(dataset, range.sequence, range.startIP, range.endIP, range.place, range.extend,
               range.oper, range.nettype, range.apn, range.flable);
  }
}

void TableStore::writeCodes(std::int64_t dataset, const std::vector<ravel::CodeInfo>& codes) {
  SqliteStatement insert(_connection, "INSERT OR REPLACE INTO code VALUES (?, ?, ?, ?)");
  for (const ravel::CodeInfo& code : codes)
    insert.run(dataset, code.codeType, code.ID, code.content);
}

void TableStore::writeIds(const IdRegistry& ids) {
  SqliteStatement insert(_connection,
                         "INSERT INTO assigned_id VALUES (?, ?, ?, ?) ON CONFLICT DO NOTHING");
  SqliteStatement find(_connection,
                       "SELECT id FROM assigned_id WHERE type = ? AND parent = ? AND name = ?");
  for (const auto& [key, id] : ids.entries()) {
    insert.run(static_cast<int>(key.type), key.parent, key.name, id);
    if (_connection.changes() != 0) continue;
    find.bindAll(static_cast<int>(key.type), key.parent, key.name);
    const bool isSame = find.step() && find.number(0) == id;
    find.reset();
    if (!isSame) {
      throw StoreError(_connection.path() + ": the id " + std::to_string(id) + " of \"" + key.name +
                       "\" is not the one given before; nothing was changed: run it again");
    }
  }
}

std::vector<ravel::IPProperty> TableStore::readRanges(const StoredVersion& version) const {
  std::vector<ravel::IPProperty> ranges;
  ranges.reserve(static_cast<std::size_t>(std::clamp<std::int64_t>(version.ranges, 0, 1 << 24)));
  SqliteStatement rows(_connection,
                       "SELECT start_ip, end_ip, place, extend, oper, nettype, apn, flable "
                       "FROM ip_range WHERE dataset = ? ORDER BY sequence");
  rows.bindAll(version.dataset);
  const auto field = [&rows](int column) {
    return static_cast<std::uint32_t>(rows.number(column));
  };
  while (rows.step()) {
    ravel::IPProperty& range = ranges.emplace_back();
    range.startIP = field(0);
    range.endIP = field(1);
    range.place = rows.number(2);
    range.extend = field(3);
    range.oper = field(4);
    range.nettype = field(5);
    range.apn = field(6);
    range.flable = field(7);
  }
  return ranges;
}

std::vector<ravel::CodeInfo> TableStore::readCodes(const StoredVersion& version) const {
  std::vector<ravel::CodeInfo> codes;
  SqliteStatement rows(_connection,
                       "SELECT type, id, name FROM code WHERE dataset = ? ORDER BY type, id");
  rows.bindAll(version.dataset);
  while (rows.step()) {
    ravel::CodeInfo& code = codes.emplace_back();
    code.codeType = static_cast<std::int32_t>(rows.number(0));
    code.ID = rows.number(1);
    code.content = rows.text(2);
  }
  return codes;
}

std::shared_ptr<const TableVersion> TableStore::load(const StoredVersion& version) const {
  const SqliteSnapshot snapshot(_connection);
  if (!find(version.number)) failAbsent(version.number);
  const std::string where = _connection.path() + ": version " + std::to_string(version.number);
  std::shared_ptr<const TableVersion> table;
  try {
    table = std::make_shared<const TableVersion>(TableData{readRanges(version), readCodes(version)},
                                                 version.timesTamp);
  } catch (const std::invalid_argument& error) {
    throw StoreError(where + " is damaged: " + error.what() + kRemedy);
  }
  if (table->digest() != version.digest) {
    throw StoreError(where + " is damaged: its ranges have the digest " + table->digest() +
                     " instead of " + version.digest + kRemedy);
  }
  if (codesDigestOf(table->codes()) != version.codesDigest)
    throw StoreError(where + " is damaged: its codes are not those that were imported" + kRemedy);
  return table;
}

std::optional<TableStore::LoadedVersion> TableStore::loadNewest(
    const std::function<bool(const StoredVersion&)>& isKnown) const {
  const SqliteSnapshot snapshot(_connection);
  const std::optional<StoredVersion> stored = newest();
  if (!stored || isKnown(*stored)) return std::nullopt;
  return LoadedVersion{*stored, load(*stored)};
}

IdRegistry TableStore::ids() const {
  SqliteStatement rows(_connection, "SELECT type, parent, name, id FROM assigned_id");
  IdRegistry ids;
  try {
    while (rows.step()) {
      ids.restore({static_cast<CodeType>(rows.number(0)), rows.number(1), rows.text(2)},
                  rows.number(3));
    }
  } catch (const std::invalid_argument& error) {
    throw StoreError(_connection.path() + ": the assigned ids are damaged: " + error.what());
  }
  return ids;
}

ravel::ClientConf TableStore::conf() const {
  const SqliteSnapshot snapshot(_connection);
  SqliteStatement row(_connection,
                      "SELECT statis_open, simpling_rate, log_buffer_limit, log_unknown_ip, "
                      "conf_version FROM client_conf");
  ravel::ClientConf conf;
  if (row.step()) {
    conf.statisOpen = row.number(0) != 0;
    conf.simplingRate = static_cast<std::int32_t>(row.number(1));
    conf.logBufferLimit = static_cast<std::int32_t>(row.number(2));
    conf.logUnknownIp = row.number(3) != 0;
    conf.confVersion = static_cast<std::int32_t>(row.number(4));
  }
  SqliteStatement cities(_connection, "SELECT name FROM simple_log_city ORDER BY position");
  while (cities.step()) conf.simpleLogCitys.push_back(cities.text(0));
  return conf;
}

ravel::ClientConf TableStore::setConf(const ravel::ClientConf& wanted) {
  return changeConf([&](ravel::ClientConf& conf) { conf = wanted; });
}

ravel::ClientConf TableStore::changeConf(const std::function<void(ravel::ClientConf&)>& change) {
  SqliteTransaction transaction(_connection);
  const ravel::ClientConf now = conf();
  ravel::ClientConf next = now;
  change(next);
  const bool same = next.statisOpen == now.statisOpen && next.simplingRate == now.simplingRate &&
                    next.logBufferLimit == now.logBufferLimit &&
                    next.logUnknownIp == now.logUnknownIp &&
                    next.simpleLogCitys == now.simpleLogCitys;
  if (same) return now;
  // Versions stay positive; a client compares for difference only.
  next.confVersion = now.confVersion < INT32_MAX ? now.confVersion + 1 : 1;
  SqliteStatement(
      _connection,
      "UPDATE client_conf SET statis_open = ?, simpling_rate = ?, log_buffer_limit = ?, "
      "log_unknown_ip = ?, conf_version = ?")
      .run(next.statisOpen ? 1 : 0, next.simplingRate, next.logBufferLimit,
           next.logUnknownIp ? 1 : 0, next.confVersion);
  _connection.execute("DELETE FROM simple_log_city");
  SqliteStatement insert(_connection, "INSERT INTO simple_log_city (name) VALUES (?)");
  for (const std::string& city : next.simpleLogCitys) insert.run(city);
  transaction.commit();
  return next;
}

std::int64_t TableStore::changeMark() const {
  return _connection.number("PRAGMA data_version").value_or(0);
}

std::uint64_t TableStore::addHits(const std::vector<ravel::ReportCount>& counts,
                                  std::size_t names) {
  std::int64_t room = static_cast<std::int64_t>(names) -
                      _connection.number("SELECT count(*) FROM usage_hit").value_or(0);
  SqliteStatement update(_connection,
                         "UPDATE usage_hit SET hits = min(hits, 9223372036854775807 - ?3) + ?3 "
                         "WHERE type = ?1 AND name = ?2");
  SqliteStatement insert(_connection, "INSERT INTO usage_hit VALUES (?, ?, ?)");
  std::uint64_t dropped = 0;
  for (const ravel::ReportCount& count : counts) {
    const int type = static_cast<int>(count.info.type);
    update.run(type, count.info.name, clamped(count.count));
    if (_connection.changes() != 0) continue;
    if (room > 0) {
      insert.run(type, count.info.name, clamped(count.count));
      --room;
    } else {
      dropped += std::min<std::uint64_t>(count.count,
                                         kMostHits - std::min<std::uint64_t>(dropped, kMostHits));
    }
  }
  return dropped;
}

void TableStore::addUsage(const Usage& reported, const UsageLimits& limits) {
  SqliteTransaction transaction(_connection);
  const std::uint64_t dropped = addHits(reported.counts, limits.names);
  SqliteStatement line(_connection, "INSERT INTO usage_line (text) VALUES (?)");
  for (const std::string& text : reported.lines) line.run(text);
  SqliteStatement(_connection,
                  "DELETE FROM usage_line WHERE line <= (SELECT max(line) FROM usage_line) - ?")
      .run(static_cast<std::int64_t>(limits.lines));
  SqliteStatement sums(_connection,
                       "UPDATE usage_dropped SET hits = min(hits, 9223372036854775807 - ?1) + ?1, "
                       "lines = min(lines, 9223372036854775807 - ?2) + ?2");
  sums.run(clamped(dropped), std::int64_t{0});
  sums.run(clamped(reported.droppedHits), clamped(reported.droppedLines));
  transaction.commit();
}

Usage TableStore::usage() const {
  const SqliteSnapshot snapshot(_connection);
  Usage usage;
  SqliteStatement hits(_connection,
                       "SELECT type, name, hits FROM usage_hit ORDER BY hits DESC, type, name");
  while (hits.step()) {
    ravel::ReportCount& count = usage.counts.emplace_back();
    count.info.type = static_cast<ravel::ReportType>(hits.number(0));
    count.info.name = hits.text(1);
    count.count = static_cast<std::uint64_t>(hits.number(2));
  }
  SqliteStatement lines(_connection, "SELECT text FROM usage_line ORDER BY line");
  while (lines.step()) usage.lines.push_back(lines.text(0));
  SqliteStatement dropped(_connection, "SELECT hits, lines FROM usage_dropped");
  if (dropped.step()) {
    usage.droppedHits = static_cast<std::uint64_t>(dropped.number(0));
    usage.droppedLines = static_cast<std::uint64_t>(dropped.number(1));
  }
  return usage;
}

void TableStore::relaxWrites(int busyMillis) {
  _connection.setBusyMillis(busyMillis);
  _connection.execute("PRAGMA synchronous = NORMAL");
}

void TableStore::checkpoint() noexcept {
  try {
    _connection.setBusyMillis(0);
    _connection.number("PRAGMA wal_checkpoint(TRUNCATE)");
  } catch (const StoreError&) {
    // Somebody reads; a later writer will do it.
  }
}

std::vector<std::string> TableStore::check() const {
  std::vector<std::string> faults;
  try {
    const SqliteSnapshot snapshot(_connection);
    checkStructure(faults);
    if (!faults.empty()) return faults;
    for (const StoredVersion& version : versions()) {
      try {
        load(version);
      } catch (const StoreError& error) {
        faults.push_back(error.what());
      }
    }
    ids();
  } catch (const StoreError& error) {
    faults.push_back(error.what());
  }
  return faults;
}

void TableStore::checkStructure(std::vector<std::string>& faults) const {
  SqliteStatement integrity(_connection, "PRAGMA integrity_check");
  while (integrity.step())
    if (integrity.text(0) != "ok") faults.push_back(integrity.text(0));
  SqliteStatement keys(_connection, "PRAGMA foreign_key_check");
  while (keys.step())
    faults.push_back("table " + keys.text(0) + " has a row without its " + keys.text(2));
}

}  // namespace tolvar::service
