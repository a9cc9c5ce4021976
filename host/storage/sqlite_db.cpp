#include "host/storage/sqlite_db.h"

#include <new>

namespace host::storage {

zel::result_t ResultFromSqlite(int code) noexcept {
  switch (code & 0xFF) {
    case SQLITE_OK:
    case SQLITE_ROW:
    case SQLITE_DONE:
      return zel::result::NoError;
    case SQLITE_NOMEM:
      return zel::result::OutOfMemory;
    case SQLITE_BUSY:
    case SQLITE_LOCKED:
      return zel::result::Locked;
    case SQLITE_FULL:
      return zel::result::OutOfSpace;
    case SQLITE_PERM:
    case SQLITE_READONLY:
    case SQLITE_AUTH:
      return zel::result::AccessDenied;
    case SQLITE_CORRUPT:
    case SQLITE_NOTADB:
      return zel::result::BasesCorrupted;
    case SQLITE_CANTOPEN:
      return zel::result::FileNotFound;
    case SQLITE_IOERR:
      return zel::result::MediaError;
    case SQLITE_TOOBIG:
      return zel::result::FileIsTooBig;
    case SQLITE_MISUSE:
    case SQLITE_RANGE:
      return zel::result::InvalidArgument;
    default:
      return zel::result::UnspecifiedError;
  }
}

zel::result_t Database::Open(const std::string& path, int busyTimeoutMs) {
  Close();
  const int rc = sqlite3_open_v2(path.c_str(), &m_db,
                                 SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX, nullptr);
  if (rc != SQLITE_OK) {
    Close();  // sqlite3_open_v2 hands out a handle even on failure
    return ResultFromSqlite(rc);
  }
  sqlite3_busy_timeout(m_db, busyTimeoutMs);
  return zel::result::NoError;
}

void Database::Close() noexcept {
  if (m_db != nullptr) {
    sqlite3_close_v2(m_db);
    m_db = nullptr;
  }
}

zel::result_t Database::Exec(const char* sql) {
  if (m_db == nullptr) return zel::result::NotInitialized;
  return ResultFromSqlite(sqlite3_exec(m_db, sql, nullptr, nullptr, nullptr));
}

std::string_view Database::LastError() const noexcept {
  return m_db == nullptr ? std::string_view("not open") : std::string_view(sqlite3_errmsg(m_db));
}

zel::result_t Statement::Prepare(Database& db, const char* sql) {
  Finalize();
  if (!db.IsOpen()) return zel::result::NotInitialized;
  return ResultFromSqlite(sqlite3_prepare_v2(db.Handle(), sql, -1, &m_stmt, nullptr));
}

zel::result_t Statement::Bind(int index, std::int64_t value) {
  return ResultFromSqlite(sqlite3_bind_int64(m_stmt, index, value));
}

zel::result_t Statement::Bind(int index, std::span<const std::uint8_t> blob) {
  // A zero-length blob still binds as a blob, not as NULL.
  static const std::uint8_t kEmpty = 0;
  const void* data = blob.empty() ? &kEmpty : blob.data();
  return ResultFromSqlite(sqlite3_bind_blob64(m_stmt, index, data, blob.size(), SQLITE_TRANSIENT));
}

zel::result_t Statement::BindBorrowed(int index, std::span<const std::uint8_t> blob) {
  static const std::uint8_t kEmpty = 0;
  const void* data = blob.empty() ? &kEmpty : blob.data();
  return ResultFromSqlite(sqlite3_bind_blob64(m_stmt, index, data, blob.size(), SQLITE_STATIC));
}

bool Statement::Step(zel::result_t* result) {
  const int rc = sqlite3_step(m_stmt);
  *result = ResultFromSqlite(rc);
  return rc == SQLITE_ROW;
}

zel::result_t Statement::Run() {
  zel::result_t r = zel::result::NoError;
  while (Step(&r)) {
  }
  return r;
}

std::span<const std::uint8_t> Statement::ColumnBlob(int column) const noexcept {
  const auto* data = static_cast<const std::uint8_t*>(sqlite3_column_blob(m_stmt, column));
  const int size = sqlite3_column_bytes(m_stmt, column);
  if (data == nullptr || size <= 0) return {};
  return {data, static_cast<std::size_t>(size)};
}

zel::result_t StoreDatabase::Open(const std::string& path, const char* schema,
                                  std::initializer_list<const char*> kept) {
  Close();
  zel::result_t r = m_db.Open(path);
  if (ZEL_SUCCEEDED(r)) r = m_db.Exec(kPageSizePragma);
  // WAL: a commit is atomic and survives a crash of this process at once; a
  // checkpoint is what forces it to the disk.
  if (ZEL_SUCCEEDED(r)) r = m_db.Exec("PRAGMA journal_mode=WAL; PRAGMA synchronous=NORMAL;");
  if (ZEL_SUCCEEDED(r)) r = m_db.Exec(schema);
  try {
    m_kept.reserve(kept.size());
    for (const char* sql : kept) {
      if (ZEL_FAILED(r)) break;
      r = m_kept.emplace_back(std::make_unique<Statement>())->Prepare(m_db, sql);
    }
  } catch (const std::bad_alloc&) {
    r = zel::result::OutOfMemory;
  }
  if (ZEL_FAILED(r)) Close();
  return r;
}

void StoreDatabase::Close() noexcept {
  m_kept.clear();
  m_db.Close();
}

}  // namespace host::storage
