#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>

struct sqlite3;
struct sqlite3_stmt;

namespace tolvar::service {

/// A database file cannot be used: the text names the file, the step and the cause.
class StoreError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// The file is there and can be read, but is no database or one that was damaged.
class StoreDamage : public StoreError {
 public:
  using StoreError::StoreError;
};

/// A connection to one SQLite file. Used by one thread at a time; several connections, in several
/// processes, may be open at once. A writer waits for another for up to kBusyMillis.
class SqliteConnection {
 public:
  static constexpr int kBusyMillis = 30000;

  enum class Mode { ReadOnly, ReadWrite, Create };

  /// `path` is that of a regular file, whatever it looks like: names that mean something else to
  /// SQLite (":memory:", "file:...") are files, too. Throws StoreError.
  SqliteConnection(const std::string& path, Mode mode);

  /// Runs statements without parameters or results.
  void execute(const char* sql);

  /// How long to wait for another writer, in milliseconds.
  void setBusyMillis(int millis);

  /// Makes the file keep a write-ahead log, so that readers and a writer do not wait for each
  /// other. Waits for others that have the file open for up to kBusyMillis.
  void useWriteAheadLog();

  /// Makes what this connection does now fail soon. May be called from any thread.
  void interrupt() noexcept;

  /// Rows that the last statement inserted, changed or removed.
  std::int64_t changes() const noexcept;

  /// True inside a transaction.
  bool inTransaction() const noexcept;

  /// First column of the first row, nothing without a row.
  std::optional<std::int64_t> number(const char* sql);

  sqlite3* handle() const noexcept { return _handle.get(); }
  const std::string& path() const noexcept { return _path; }

  /// Throws StoreError, or StoreDamage: the file, what failed, and what to do about it.
  [[noreturn]] void fail() const;

 private:
  struct Closer {
    void operator()(sqlite3* handle) const noexcept;
  };

  std::string _path;
  std::unique_ptr<sqlite3, Closer> _handle;
};

/// One prepared statement. Parameters and columns count from 1 and 0, as SQLite has it.
class SqliteStatement {
 public:
  SqliteStatement(const SqliteConnection& connection, const char* sql);

  /// Binds parameters from the first on and runs the statement to its end, ignoring rows.
  template <class... Values>
  void run(const Values&... values) {
    bindAll(values...);
    while (step()) {
    }
    reset();
  }

  template <class... Values>
  void bindAll(const Values&... values) {
    int index = 0;
    (bind(++index, values), ...);
  }

  /// True when a row is there.
  bool step();
  void reset() noexcept;

  std::int64_t number(int column) const noexcept;
  std::string text(int column) const;
  bool isNull(int column) const noexcept;

 private:
  void bind(int index, std::int64_t value);
  void bind(int index, std::string_view value);
  void bind(int index, std::uint32_t value) { bind(index, static_cast<std::int64_t>(value)); }
  void bind(int index, int value) { bind(index, static_cast<std::int64_t>(value)); }
  void bind(int index, const std::string& value) { bind(index, std::string_view(value)); }
  void check(int result) const;

  struct Finalizer {
    void operator()(sqlite3_stmt* statement) const noexcept;
  };

  const SqliteConnection& _connection;
  std::unique_ptr<sqlite3_stmt, Finalizer> _statement;
};

/// A write transaction: rolled back unless committed.
class SqliteTransaction {
 public:
  explicit SqliteTransaction(SqliteConnection& connection);
  ~SqliteTransaction();
  SqliteTransaction(const SqliteTransaction&) = delete;
  SqliteTransaction& operator=(const SqliteTransaction&) = delete;
  void commit();

 private:
  SqliteConnection& _connection;
  bool _open = true;
};

/// Lets all reads within a scope see one state of the database, whatever others write meanwhile.
/// Within a transaction it adds nothing.
class SqliteSnapshot {
 public:
  explicit SqliteSnapshot(SqliteConnection& connection);
  ~SqliteSnapshot();
  SqliteSnapshot(const SqliteSnapshot&) = delete;
  SqliteSnapshot& operator=(const SqliteSnapshot&) = delete;

 private:
  SqliteConnection& _connection;
  const bool _owns;
};

}  // namespace tolvar::service
