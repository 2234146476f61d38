#include "service/store/table_store.h"

#include <algorithm>
#include <ctime>

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
    "source, "
    "created_at FROM version JOIN dataset USING (dataset) ";

StoredVersion versionOf(const SqliteStatement& row) {
  StoredVersion version;
  version.number = row.number(0);
  version.timesTamp = static_cast<std::uint32_t>(row.number(1));
  version.dataset = row.number(2);
  version.digest = row.text(3);
  version.ranges = row.number(4);
  version.addresses = row.number(5);
  version.codes = row.number(6);
  version.source = row.text(7);
  version.createdAt = row.text(8);
  return version;
}

std::int64_t addressesOf(const std::vector<ravel::IPProperty>& ranges) {
  std::int64_t addresses = 0;
  for (const ravel::IPProperty& range : ranges)
    addresses += static_cast<std::int64_t>(range.endIP) - range.startIP + 1;
  return addresses;
}

}  // namespace

TableStore::TableStore(const std::string& path, Mode mode)
    : _connection(path, connectionMode(mode)) {
  prepare(mode);
}

void TableStore::prepare(Mode mode) {
  const std::int64_t application = _connection.number("PRAGMA application_id").value_or(0);
  const std::int64_t schema = _connection.number("PRAGMA user_version").value_or(0);
  const std::int64_t tables = _connection.number("SELECT count(*) FROM sqlite_schema").value_or(0);
  if (application == 0 && tables == 0 && mode == Mode::Create) {
    _connection.execute("PRAGMA journal_mode = WAL");
    SqliteTransaction transaction(_connection);
    // Another process may have been faster.
    if (_connection.number("SELECT count(*) FROM sqlite_schema").value_or(0) == 0) {
      _connection.execute(kSchema);
      _connection.execute(("PRAGMA application_id = " + std::to_string(kApplicationId)).c_str());
      _connection.execute(("PRAGMA user_version = " + std::to_string(kSchemaVersion)).c_str());
    }
    transaction.commit();
  } else if (application != kApplicationId) {
    throw StoreError(_connection.path() + " is a database of something else; name another file");
  } else if (schema > kSchemaVersion) {
    throw StoreError(_connection.path() + " was written by a newer version of this program");
  }
  _connection.execute("PRAGMA foreign_keys = ON");
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

std::uint32_t TableStore::nextTimesTamp(std::int64_t now) const {
  const std::int64_t last = _connection.number("SELECT max(time_stamp) FROM version").value_or(0);
  const std::int64_t next = std::max(now, last + 1);
  if (next < 1 || next > UINT32_MAX) {
    throw StoreError(_connection.path() + ": no time stamp is left above " + std::to_string(last) +
                     "; is the clock right?");
  }
  return static_cast<std::uint32_t>(next);
}

StoredVersion TableStore::add(const TableData& data, const IdRegistry& ids,
                              const std::string& source, std::int64_t now, std::size_t keep) {
  // Sorts, checks and digests as the service will when it serves the version.
  const TableVersion table(data, 1);
  SqliteTransaction transaction(_connection);
  SqliteStatement addDataset(_connection,
                             "INSERT INTO dataset (digest, ranges, addresses, codes) "
                             "VALUES (?, ?, ?, ?) RETURNING dataset");
  addDataset.bindAll(table.digest(), static_cast<std::int64_t>(table.ranges().size()),
                     addressesOf(table.ranges()), static_cast<std::int64_t>(table.codes().size()));
  addDataset.step();
  const std::int64_t dataset = addDataset.number(0);
  addDataset.reset();
  writeRanges(dataset, table.ranges());
  writeCodes(dataset, table.codes());
  writeIds(ids);
  SqliteStatement addVersion(
      _connection,
      "INSERT INTO version (time_stamp, dataset, source, created_at) VALUES (?, ?, ?, ?)");
  addVersion.run(nextTimesTamp(now), dataset, source, utcText(now));
  removeOld(std::max<std::size_t>(keep, 1));
  transaction.commit();
  return newest().value();
}

StoredVersion TableStore::rollback(std::int64_t number, std::int64_t now) {
  SqliteTransaction transaction(_connection);
  const std::optional<StoredVersion> wanted = find(number);
  if (!wanted) {
    throw StoreError(_connection.path() + ": there is no version " + std::to_string(number) +
                     "; `tolvard versions` lists them");
  }
  SqliteStatement addVersion(
      _connection,
      "INSERT INTO version (time_stamp, dataset, source, created_at) VALUES (?, ?, ?, ?)");
  addVersion.run(nextTimesTamp(now), wanted->dataset,
                 "rollback to version " + std::to_string(number), utcText(now));
  transaction.commit();
  return newest().value();
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
  for (const auto& [key, id] : ids.entries())
    insert.run(static_cast<int>(key.type), key.parent, key.name, id);
}

std::shared_ptr<const TableVersion> TableStore::load(const StoredVersion& version) const {
  TableData data;
  data.ranges.reserve(static_cast<std::size_t>(version.ranges));
  SqliteStatement ranges(_connection,
                         "SELECT start_ip, end_ip, place, extend, oper, nettype, apn, flable "
                         "FROM ip_range WHERE dataset = ? ORDER BY sequence");
  ranges.bindAll(version.dataset);
  const auto field = [&ranges](int column) {
    return static_cast<std::uint32_t>(ranges.number(column));
  };
  while (ranges.step()) {
    ravel::IPProperty range;
    range.startIP = field(0);
    range.endIP = field(1);
    range.place = ranges.number(2);
    range.extend = field(3);
    range.oper = field(4);
    range.nettype = field(5);
    range.apn = field(6);
    range.flable = field(7);
    data.ranges.push_back(range);
  }
  SqliteStatement codes(_connection,
                        "SELECT type, id, name FROM code WHERE dataset = ? ORDER BY type, id");
  codes.bindAll(version.dataset);
  while (codes.step()) {
    ravel::CodeInfo code;
    code.codeType = static_cast<std::int32_t>(codes.number(0));
    code.ID = codes.number(1);
    code.content = codes.text(2);
    data.codes.push_back(std::move(code));
  }
  const std::string where = _connection.path() + ": version " + std::to_string(version.number);
  std::shared_ptr<const TableVersion> table;
  try {
    table = std::make_shared<const TableVersion>(std::move(data), version.timesTamp);
  } catch (const std::invalid_argument& error) {
    throw StoreError(where + " is damaged: " + error.what());
  }
  if (table->digest() != version.digest) {
    throw StoreError(where + " is damaged: its content has the digest " + table->digest() +
                     " instead of " + version.digest);
  }
  return table;
}

IdRegistry TableStore::ids() const {
  SqliteStatement rows(_connection, "SELECT type, parent, name, id FROM assigned_id");
  IdRegistry ids;
  while (rows.step()) {
    ids.restore({static_cast<CodeType>(rows.number(0)), rows.number(1), rows.text(2)},
                rows.number(3));
  }
  return ids;
}

ravel::ClientConf TableStore::conf() const {
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

ravel::ClientConf TableStore::setConf(ravel::ClientConf next) {
  SqliteTransaction transaction(_connection);
  const ravel::ClientConf now = conf();
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

void TableStore::addUsage(const std::vector<ravel::ReportCount>& counts,
                          const std::vector<std::string>& lines, std::uint64_t droppedHits,
                          std::uint64_t droppedLines, std::size_t keepLines) {
  SqliteTransaction transaction(_connection);
  SqliteStatement hit(_connection,
                      "INSERT INTO usage_hit VALUES (?, ?, ?) "
                      "ON CONFLICT DO UPDATE SET hits = hits + excluded.hits");
  for (const ravel::ReportCount& count : counts)
    hit.run(static_cast<int>(count.info.type), count.info.name,
            static_cast<std::int64_t>(count.count));
  SqliteStatement line(_connection, "INSERT INTO usage_line (text) VALUES (?)");
  for (const std::string& text : lines) line.run(text);
  SqliteStatement(_connection,
                  "DELETE FROM usage_line WHERE line <= (SELECT max(line) FROM usage_line) - ?")
      .run(static_cast<std::int64_t>(keepLines));
  SqliteStatement(_connection, "UPDATE usage_dropped SET hits = hits + ?, lines = lines + ?")
      .run(static_cast<std::int64_t>(droppedHits), static_cast<std::int64_t>(droppedLines));
  transaction.commit();
}

TableStore::StoredUsage TableStore::usage() const {
  StoredUsage usage;
  SqliteStatement hits(_connection,
                       "SELECT type, name, hits FROM usage_hit ORDER BY hits DESC, type, name");
  while (hits.step()) {
    ravel::ReportCount count;
    count.info.type = static_cast<ravel::ReportType>(hits.number(0));
    count.info.name = hits.text(1);
    count.count = static_cast<std::uint64_t>(hits.number(2));
    usage.counts.push_back(std::move(count));
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

std::vector<std::string> TableStore::check() const {
  std::vector<std::string> faults;
  SqliteStatement integrity(_connection, "PRAGMA integrity_check");
  while (integrity.step())
    if (integrity.text(0) != "ok") faults.push_back(integrity.text(0));
  SqliteStatement keys(_connection, "PRAGMA foreign_key_check");
  while (keys.step())
    faults.push_back("table " + keys.text(0) + " has a row without its " + keys.text(2));
  if (!faults.empty()) return faults;
  for (const StoredVersion& version : versions()) {
    try {
      load(version);
    } catch (const StoreError& error) {
      faults.push_back(error.what());
    }
  }
  return faults;
}

}  // namespace tolvar::service
