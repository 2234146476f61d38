#include "service/store/sqlite.h"

#include <sqlite3.h>

namespace tolvar::service {

void SqliteConnection::Closer::operator()(sqlite3* handle) const noexcept {
  sqlite3_close_v2(handle);
}

SqliteConnection::SqliteConnection(const std::string& path, Mode mode) : _path(path) {
  const int flags = mode == Mode::ReadOnly    ? SQLITE_OPEN_READONLY
                    : mode == Mode::ReadWrite ? SQLITE_OPEN_READWRITE
                                              : SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE;
  sqlite3* handle = nullptr;
  const int result = sqlite3_open_v2(path.c_str(), &handle, flags | SQLITE_OPEN_NOMUTEX, nullptr);
  _handle.reset(handle);
  if (result != SQLITE_OK) fail("cannot be opened");
  sqlite3_extended_result_codes(handle, 1);
  sqlite3_busy_timeout(handle, kBusyMillis);
}

void SqliteConnection::fail(const std::string& step) const {
  const std::string cause = _handle ? sqlite3_errmsg(_handle.get()) : "out of memory";
  throw StoreError(_path + ": " + step + ": " + cause);
}

void SqliteConnection::execute(const char* sql) {
  if (sqlite3_exec(_handle.get(), sql, nullptr, nullptr, nullptr) != SQLITE_OK)
    fail("a statement failed");
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
  check(result, "a statement was refused");
}

void SqliteStatement::check(int result, const char* step) const {
  if (result != SQLITE_OK) _connection.fail(step);
}

void SqliteStatement::bind(int index, std::int64_t value) {
  check(sqlite3_bind_int64(_statement.get(), index, value), "a parameter was refused");
}

void SqliteStatement::bind(int index, std::string_view value) {
  check(sqlite3_bind_text64(_statement.get(), index, value.data(), value.size(), SQLITE_TRANSIENT,
                            SQLITE_UTF8),
        "a parameter was refused");
}

bool SqliteStatement::step() {
  const int result = sqlite3_step(_statement.get());
  if (result == SQLITE_ROW) return true;
  if (result != SQLITE_DONE) _connection.fail("a statement failed");
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

}  // namespace tolvar::service
