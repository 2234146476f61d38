#include "service/store/sqlite.h"

#include <sqlite3.h>

#include <cerrno>
#include <chrono>
#include <filesystem>
#include <system_error>
#include <thread>

namespace tolvar::service {
namespace {

std::string causeOf(sqlite3* handle) {
  const int error = sqlite3_system_errno(handle);
  const std::string cause = sqlite3_errmsg(handle);
  return error == 0 ? cause : cause + ", " + std::generic_category().message(error);
}

/// SQLite has a code of its own for a full disk, but not when it is its index that finds no space.
int codeOf(sqlite3* handle) {
  const int code = sqlite3_errcode(handle);
  const int error = sqlite3_system_errno(handle);
  return code == SQLITE_IOERR && (error == ENOSPC || error == EDQUOT) ? SQLITE_FULL : code;
}

bool isDamage(int code) { return code == SQLITE_NOTADB || code == SQLITE_CORRUPT; }

/// What went wrong, and what to do about it.
std::string explained(sqlite3* handle) {
  switch (codeOf(handle)) {
    case SQLITE_BUSY:
    case SQLITE_LOCKED: return "another process is writing to it; try again when it is done";
    case SQLITE_FULL:
      return "no space is left for it (" + causeOf(handle) +
             "); nothing was changed: free space and try again";
    case SQLITE_IOERR:
      return "it cannot be read or written (" + causeOf(handle) +
             "); nothing was changed: look at the disk and try again";
    case SQLITE_NOTADB:
    case SQLITE_CORRUPT:
      return "the file is damaged or is no database (" + causeOf(handle) +
             "); restore it from a backup, or import into a new one";
    case SQLITE_READONLY: return "it cannot be written (" + causeOf(handle) + ")";
    case SQLITE_CANTOPEN:
      return "it cannot be opened (" + causeOf(handle) + "); look at the path and its permissions";
    default: return causeOf(handle);
  }
}

/// What to call the file at `path`, so that nothing but a file is ever opened: SQLite takes the
/// empty name, ":memory:" and "file:" URIs for databases that are gone when the program ends.
std::string fileName(const std::string& path) {
  if (path.empty()) throw StoreError("the path of the database is empty; name a file");
  std::error_code ignored;
  const auto status = std::filesystem::status(path, ignored);
  if (std::filesystem::exists(status) && !std::filesystem::is_regular_file(status))
    throw StoreError(path + ": is no regular file, so it cannot be the database; name another");
  return path.front() == '/' ? path : "./" + path;
}

}  // namespace

void SqliteConnection::Closer::operator()(sqlite3* handle) const noexcept {
  sqlite3_close_v2(handle);
}

SqliteConnection::SqliteConnection(const std::string& path, Mode mode) : _path(path) {
  const int flags = mode == Mode::ReadOnly    ? SQLITE_OPEN_READONLY
                    : mode == Mode::ReadWrite ? SQLITE_OPEN_READWRITE
                                              : SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE;
  sqlite3* handle = nullptr;
  const int result =
      sqlite3_open_v2(fileName(path).c_str(), &handle, flags | SQLITE_OPEN_NOMUTEX, nullptr);
  _handle.reset(handle);
  if (result != SQLITE_OK) {
    std::error_code ignored;
    if (mode != Mode::Create && !std::filesystem::exists(path, ignored))
      throw StoreError(path + ": there is no such file; an import makes it");
    fail();
  }
  setBusyMillis(kBusyMillis);
}

void SqliteConnection::fail() const {
  if (!_handle) throw StoreError(_path + ": out of memory");
  const std::string text = _path + ": " + explained(_handle.get());
  if (isDamage(codeOf(_handle.get()))) throw StoreDamage(text);
  throw StoreError(text);
}

void SqliteConnection::setBusyMillis(int millis) { sqlite3_busy_timeout(_handle.get(), millis); }

void SqliteConnection::useWriteAheadLog() {
  constexpr std::chrono::milliseconds kPause{10};
  const auto giveUpAt = std::chrono::steady_clock::now() + std::chrono::milliseconds(kBusyMillis);
  // Not left to SQLite: two that change the mode at once would wait for each other, so it gives up.
  int result = SQLITE_BUSY;
  while (true) {
    result = sqlite3_exec(_handle.get(), "PRAGMA journal_mode = WAL", nullptr, nullptr, nullptr);
    if (result != SQLITE_BUSY || std::chrono::steady_clock::now() >= giveUpAt) break;
    std::this_thread::sleep_for(kPause);
  }
  if (result != SQLITE_OK) fail();
}

void SqliteConnection::interrupt() noexcept { sqlite3_interrupt(_handle.get()); }

std::int64_t SqliteConnection::changes() const noexcept { return sqlite3_changes(_handle.get()); }

bool SqliteConnection::inTransaction() const noexcept {
  return sqlite3_get_autocommit(_handle.get()) == 0;
}

void SqliteConnection::execute(const char* sql) {
  if (sqlite3_exec(_handle.get(), sql, nullptr, nullptr, nullptr) != SQLITE_OK) fail();
}

std::optional<std::int64_t> SqliteConnection::number(const char* sql) {
  SqliteStatement statement(*this, sql);
  if (!statement.step() || statement.isNull(0)) return std::nullopt;
  return statement.number(0);
}

void SqliteStatement::Finalizer::operator()(sqlite3_stmt* statement) const noexcept {
  sqlite3_finalize(statement);
}

SqliteStatement::SqliteStatement(const SqliteConnection& connection, const char* sql)
    : _connection(connection) {
  sqlite3_stmt* statement = nullptr;
  const int result = sqlite3_prepare_v2(connection.handle(), sql, -1, &statement, nullptr);
  _statement.reset(statement);
  check(result);
}

void SqliteStatement::check(int result) const {
  if (result != SQLITE_OK) _connection.fail();
}

void SqliteStatement::bind(int index, std::int64_t value) {
  check(sqlite3_bind_int64(_statement.get(), index, value));
}

void SqliteStatement::bind(int index, std::string_view value) {
  check(sqlite3_bind_text64(_statement.get(), index, value.data(), value.size(), SQLITE_TRANSIENT,
                            SQLITE_UTF8));
}

bool SqliteStatement::step() {
  const int result = sqlite3_step(_statement.get());
  if (result == SQLITE_ROW) return true;
  if (result != SQLITE_DONE) _connection.fail();
  return false;
}

void SqliteStatement::reset() noexcept { sqlite3_reset(_statement.get()); }

std::int64_t SqliteStatement::number(int column) const noexcept {
  return sqlite3_column_int64(_statement.get(), column);
}

std::string SqliteStatement::text(int column) const {
  const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(_statement.get(), column));
  return text == nullptr
             ? std::string()
             : std::string(
                   text, static_cast<std::size_t>(sqlite3_column_bytes(_statement.get(), column)));
}

bool SqliteStatement::isNull(int column) const noexcept {
  return sqlite3_column_type(_statement.get(), column) == SQLITE_NULL;
}

SqliteTransaction::SqliteTransaction(SqliteConnection& connection) : _connection(connection) {
  // Taken for writing at once, so that two writers wait for each other here and not half-way.
  _connection.execute("BEGIN IMMEDIATE");
}

SqliteTransaction::~SqliteTransaction() {
  if (_open) sqlite3_exec(_connection.handle(), "ROLLBACK", nullptr, nullptr, nullptr);
}

void SqliteTransaction::commit() {
  _connection.execute("COMMIT");
  _open = false;
}

SqliteSnapshot::SqliteSnapshot(SqliteConnection& connection)
    : _connection(connection), _owns(!connection.inTransaction()) {
  if (_owns) _connection.execute("BEGIN");
}

SqliteSnapshot::~SqliteSnapshot() {
  if (_owns) sqlite3_exec(_connection.handle(), "COMMIT", nullptr, nullptr, nullptr);
}

}  // namespace tolvar::service
