// host::storage: a thin owner of one SQLite connection and its prepared
// statements, for the host services that persist state. Nothing here is
// thread-safe; the service that owns a Database serialises its use.
#pragma once

#include <sqlite3.h>

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "zel/result.h"

namespace host::storage {

// Run first on every connection to the host's state file. It decides only
// when the connection creates the file: a scan's commit of a hundred
// thousand inventory records (about 400 bytes each) then goes out in an
// eighth of the system calls of 4 KiB pages, with less left empty at the
// end of each page, and small tables lose little to it.
inline constexpr const char* kPageSizePragma = "PRAGMA page_size=32768";

// An SQLite result code as a result_t (0 for SQLITE_OK/ROW/DONE).
zel::result_t ResultFromSqlite(int code) noexcept;

class Statement;

class Database {
 public:
  Database() = default;
  Database(const Database&) = delete;
  Database& operator=(const Database&) = delete;
  ~Database() { Close(); }

  // Opens (creating if needed) the database at `path`; ":memory:" gives a
  // private in-memory one. Waits up to `busyTimeoutMs` for other writers.
  zel::result_t Open(const std::string& path, int busyTimeoutMs = 10000);
  void Close() noexcept;
  bool IsOpen() const noexcept { return m_db != nullptr; }
  sqlite3* Handle() const noexcept { return m_db; }

  // Runs statements that return no rows.
  zel::result_t Exec(const char* sql);
  // The text of the last error of this connection.
  std::string_view LastError() const noexcept;

 private:
  sqlite3* m_db = nullptr;
};

class Statement {
 public:
  Statement() = default;
  Statement(const Statement&) = delete;
  Statement& operator=(const Statement&) = delete;
  ~Statement() { sqlite3_finalize(m_stmt); }

  zel::result_t Prepare(Database& db, const char* sql);
  // Back to the unprepared state; required before the database closes.
  void Finalize() noexcept {
    sqlite3_finalize(m_stmt);
    m_stmt = nullptr;
  }
  // Ready for new bindings and a new run.
  void Reset() noexcept {
    sqlite3_reset(m_stmt);
    sqlite3_clear_bindings(m_stmt);
  }

  zel::result_t Bind(int index, std::int64_t value);
  zel::result_t Bind(int index, std::span<const std::uint8_t> blob);
  // Binds the bytes without copying them: they must outlive the next Reset.
  zel::result_t BindBorrowed(int index, std::span<const std::uint8_t> blob);

  // true: a row is there; false: done. A failure lands in *result.
  bool Step(zel::result_t* result);
  // Runs a statement that returns no row.
  zel::result_t Run();

  std::int64_t ColumnInt(int column) const noexcept { return sqlite3_column_int64(m_stmt, column); }
  std::span<const std::uint8_t> ColumnBlob(int column) const noexcept;

 private:
  sqlite3_stmt* m_stmt = nullptr;
};

// Commits at destruction unless Commit or Rollback ran; a failure to begin
// is reported by Begin.
class Transaction {
 public:
  explicit Transaction(Database& db) noexcept : m_db(db) {}
  Transaction(const Transaction&) = delete;
  Transaction& operator=(const Transaction&) = delete;
  ~Transaction() {
    if (m_open) m_db.Exec("ROLLBACK");
  }

  // IMMEDIATE: takes the write lock up front, so a read inside the
  // transaction cannot be overtaken by another writer before its write.
  zel::result_t Begin() {
    const zel::result_t r = m_db.Exec("BEGIN IMMEDIATE");
    m_open = ZEL_SUCCEEDED(r);
    return r;
  }
  zel::result_t Commit() {
    m_open = false;
    const zel::result_t r = m_db.Exec("COMMIT");
    if (ZEL_FAILED(r)) m_db.Exec("ROLLBACK");
    return r;
  }

 private:
  Database& m_db;
  bool m_open = false;
};

// A connection as the host's stores use it: opened with their settings,
// its schema in place, the statements its owner runs again and again kept
// prepared, and writes grouped in transactions. Like Database, not
// thread-safe.
class StoreDatabase {
 public:
  StoreDatabase() = default;
  StoreDatabase(const StoreDatabase&) = delete;
  StoreDatabase& operator=(const StoreDatabase&) = delete;
  ~StoreDatabase() { Close(); }

  // Opens `path` in WAL mode with normal syncing, runs `schema` (statements
  // that may find their tables already there) and prepares `kept` in order,
  // to be had by index from Kept. Any failure leaves it closed.
  zel::result_t Open(const std::string& path, const char* schema, std::initializer_list<const char*> kept = {});
  // The kept statements go before the connection they belong to.
  void Close() noexcept;
  bool IsOpen() const noexcept { return m_db.IsOpen(); }

  Database& Db() noexcept { return m_db; }
  // Only while open; `index` is the statement's place in Open's list.
  Statement& Kept(std::size_t index) noexcept { return *m_kept[index]; }

  // Runs `body` (returning a zel::result_t) inside BEGIN IMMEDIATE ...
  // COMMIT. A failure to begin, a failed result or an exception from `body`
  // rolls everything back; otherwise the commit's failure, else body's own
  // result, is returned.
  template <class F>
  zel::result_t InTransaction(F&& body) {
    Transaction transaction(m_db);
    zel::result_t r = transaction.Begin();
    if (ZEL_FAILED(r)) return r;
    r = std::forward<F>(body)();
    if (ZEL_FAILED(r)) return r;  // the transaction rolls back by itself
    const zel::result_t committed = transaction.Commit();
    return ZEL_FAILED(committed) ? committed : r;
  }

 private:
  Database m_db;
  std::vector<std::unique_ptr<Statement>> m_kept;
};

}  // namespace host::storage
