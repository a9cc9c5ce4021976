#include "host/storage/key_value_store.h"

#include <cstring>
#include <span>
#include <string>

#include "host/services/fault_switchboard.h"

namespace host {

namespace {

std::span<const std::uint8_t> Bytes(const app_core::component::IKeyValueStorage::KeyRange& key) noexcept {
  return {reinterpret_cast<const std::uint8_t*>(key.first), key.size()};
}

std::span<const std::uint8_t> Bytes(const app_core::component::IKeyValueStorage::ValueRange& value) noexcept {
  return {value.first, value.size()};
}

void CopyOut(std::span<const std::uint8_t> from, app_core::component::IKeyValueStorage::Value& to) {
  app_core::component::IKeyValueStorage::Value fresh;
  fresh.resize(from.size());
  if (!from.empty()) std::memcpy(fresh.data(), from.data(), from.size());
  to.swap(fresh);
}

// Resets a statement on every way out, so that it holds no read lock
// between calls.
class StatementRun {
 public:
  explicit StatementRun(storage::Statement& statement) noexcept : m_statement(statement) {}
  StatementRun(const StatementRun&) = delete;
  StatementRun& operator=(const StatementRun&) = delete;
  ~StatementRun() { m_statement.Reset(); }

 private:
  storage::Statement& m_statement;
};

}  // namespace

bool KeyValueStore::Fault::Fire() noexcept {
  if (countdown == 0) return false;
  return --countdown == 0;
}

KeyValueStore::~KeyValueStore() { Close(); }

zel::result_t KeyValueStore::Open(const std::string& path) { return Open(path, Options{}); }

zel::result_t KeyValueStore::Open(const std::string& path, const Options& options) {
  std::lock_guard lock(m_mutex);
  FinalizeAll();
  m_db.Close();
  zel::result_t r = m_db.Open(path, options.busyTimeoutMs);
  // WAL: readers of the file don't wait for a commit and a commit is one
  // append. FULL: a committed inventory survives a power cut, not only a
  // crash of this process. The journal mode is the first read of the file,
  // so a file that isn't a database fails right here.
  if (ZEL_SUCCEEDED(r)) r = m_db.Exec("PRAGMA journal_mode=WAL; PRAGMA synchronous=FULL;");
  if (ZEL_SUCCEEDED(r)) {
    r = m_db.Exec(
        // Rowid tables: a record of a kilobyte or two stays inside its page,
        // where an index-organised row would spill most of it to an
        // overflow page of its own.
        "CREATE TABLE IF NOT EXISTS main.key_value (key BLOB PRIMARY KEY, value BLOB NOT NULL);"
        // A NULL value stages a removal.
        "CREATE TEMP TABLE IF NOT EXISTS key_value_stage (key BLOB PRIMARY KEY, value BLOB);");
  }
  // The staging table is scratch: its rollback journal can live in memory,
  // and a larger cache keeps a scan's worth of records from spilling often.
  if (ZEL_SUCCEEDED(r)) r = m_db.Exec("PRAGMA temp.journal_mode=MEMORY; PRAGMA temp.cache_size=-65536;");
  if (ZEL_SUCCEEDED(r) && options.readOnly) r = m_db.Exec("PRAGMA query_only=1");
  if (ZEL_SUCCEEDED(r) && options.maxPageCount > 0) {
    r = m_db.Exec(("PRAGMA main.max_page_count=" + std::to_string(options.maxPageCount)).c_str());
  }
  if (ZEL_SUCCEEDED(r)) r = m_get.Prepare(m_db, "SELECT value FROM main.key_value WHERE key = ?1");
  if (ZEL_SUCCEEDED(r))
    r = m_getStaged.Prepare(m_db, "SELECT value, value IS NULL FROM temp.key_value_stage WHERE key = ?1");
  if (ZEL_SUCCEEDED(r))
    r = m_stage.Prepare(m_db, "INSERT OR REPLACE INTO temp.key_value_stage (key, value) VALUES (?1, ?2)");
  if (ZEL_SUCCEEDED(r)) {
    r = m_applyRemovals.Prepare(
        m_db, "DELETE FROM main.key_value WHERE key IN (SELECT key FROM temp.key_value_stage WHERE value IS NULL)");
  }
  if (ZEL_SUCCEEDED(r)) {
    r = m_applyWrites.Prepare(m_db,
                              "INSERT OR REPLACE INTO main.key_value (key, value)"
                              " SELECT key, value FROM temp.key_value_stage WHERE value IS NOT NULL");
  }
  if (ZEL_SUCCEEDED(r)) r = m_clearStage.Prepare(m_db, "DELETE FROM temp.key_value_stage");
  if (ZEL_SUCCEEDED(r)) r = m_countStaged.Prepare(m_db, "SELECT count(*) FROM temp.key_value_stage");
  if (ZEL_FAILED(r)) {
    FinalizeAll();
    m_db.Close();
  }
  return r;
}

void KeyValueStore::Close() {
  std::lock_guard lock(m_mutex);
  FinalizeAll();
  m_db.Close();
}

void KeyValueStore::FinalizeAll() noexcept {
  m_staging = false;  // a connection that closes drops its staging transaction with it
  // Statements go before the connection they belong to.
  for (storage::Statement* s :
       {&m_get, &m_getStaged, &m_stage, &m_applyRemovals, &m_applyWrites, &m_clearStage, &m_countStaged}) {
    s->Finalize();
  }
}

zel::result_t KeyValueStore::LookupStaged(const KeyRange& key, bool& found, bool& removed, Value* value) {
  StatementRun run(m_getStaged);
  zel::result_t r = m_getStaged.Bind(1, Bytes(key));
  if (ZEL_FAILED(r)) return r;
  found = m_getStaged.Step(&r);
  if (ZEL_FAILED(r)) return r;
  removed = found && m_getStaged.ColumnInt(1) != 0;
  if (found && !removed && value != nullptr) CopyOut(m_getStaged.ColumnBlob(0), *value);
  return zel::result::NoError;
}

zel::result_t KeyValueStore::LookupCommitted(const KeyRange& key, bool& found, Value* value) {
  // A read of the file inside the staging transaction would pin its
  // snapshot until the next Commit.
  zel::result_t r = EndStaging();
  if (ZEL_FAILED(r)) return r;
  StatementRun run(m_get);
  r = m_get.Bind(1, Bytes(key));
  if (ZEL_FAILED(r)) return r;
  found = m_get.Step(&r);
  if (ZEL_FAILED(r)) return r;
  if (found && value != nullptr) CopyOut(m_get.ColumnBlob(0), *value);
  return zel::result::NoError;
}

zel::result_t KeyValueStore::BeginStaging() {
  if (m_staging) return zel::result::NoError;
  // Touches the temporary database only, so it takes no lock on the file.
  const zel::result_t r = m_db.Exec("BEGIN");
  m_staging = ZEL_SUCCEEDED(r);
  return r;
}

zel::result_t KeyValueStore::EndStaging() {
  if (!m_staging) return zel::result::NoError;
  m_staging = false;
  const zel::result_t r = m_db.Exec("COMMIT");
  if (ZEL_FAILED(r)) m_db.Exec("ROLLBACK");
  return r;
}

zel::result_t KeyValueStore::Stage(const KeyRange& key, const ValueRange* value) {
  zel::result_t r = BeginStaging();
  if (ZEL_FAILED(r)) return r;
  StatementRun run(m_stage);
  r = m_stage.Bind(1, Bytes(key));
  // Left unbound, the value is NULL: a removal.
  if (ZEL_SUCCEEDED(r) && value != nullptr) r = m_stage.Bind(2, Bytes(*value));
  if (ZEL_SUCCEEDED(r)) r = m_stage.Run();
  return r;
}

zel::result_t KeyValueStore::GetValue(const KeyRange& key, Value& value) {
  if (const zel::result_t fault = FaultAt(FaultPoint::KvGetValue)) return fault;
  std::lock_guard lock(m_mutex);
  if (!m_db.IsOpen()) return zel::result::NotInitialized;
  bool found = false;
  bool removed = false;
  Value read;
  zel::result_t r = LookupStaged(key, found, removed, &read);
  if (ZEL_FAILED(r)) return r;
  if (!found) {
    r = LookupCommitted(key, found, &read);
    if (ZEL_FAILED(r)) return r;
  }
  if (!found || removed) return zel::result::NotFound;
  value.swap(read);
  return zel::result::NoError;
}

zel::result_t KeyValueStore::SetValue(const KeyRange& key, const ValueRange& value) {
  if (const zel::result_t fault = FaultAt(FaultPoint::KvSetValue)) return fault;
  std::lock_guard lock(m_mutex);
  if (m_failSet.Fire()) return m_failSet.code;
  if (!m_db.IsOpen()) return zel::result::NotInitialized;
  return Stage(key, &value);
}

zel::result_t KeyValueStore::RemoveValue(const KeyRange& key) {
  if (const zel::result_t fault = FaultAt(FaultPoint::KvRemoveValue)) return fault;
  std::lock_guard lock(m_mutex);
  if (!m_db.IsOpen()) return zel::result::NotInitialized;
  bool found = false;
  bool removed = false;
  zel::result_t r = LookupStaged(key, found, removed, nullptr);
  if (ZEL_FAILED(r)) return r;
  if (removed) return zel::result::False;
  if (!found) {
    r = LookupCommitted(key, found, nullptr);
    if (ZEL_FAILED(r)) return r;
    if (!found) return zel::result::False;
  }
  return Stage(key, nullptr);
}

zel::result_t KeyValueStore::Commit() {
  if (const zel::result_t fault = FaultAt(FaultPoint::KvCommit)) return fault;
  std::lock_guard lock(m_mutex);
  if (m_failCommit.Fire()) return m_failCommit.code;
  if (!m_db.IsOpen()) return zel::result::NotInitialized;
  zel::result_t r = EndStaging();
  if (ZEL_FAILED(r)) return r;
  storage::Transaction tx(m_db);
  r = tx.Begin();
  if (ZEL_SUCCEEDED(r)) r = m_applyRemovals.Run();
  m_applyRemovals.Reset();
  if (ZEL_SUCCEEDED(r)) r = m_applyWrites.Run();
  m_applyWrites.Reset();
  // Emptied inside the transaction: a failed commit rolls this back too and
  // the staged changes wait for the next Commit.
  if (ZEL_SUCCEEDED(r)) r = m_clearStage.Run();
  m_clearStage.Reset();
  if (ZEL_SUCCEEDED(r)) r = tx.Commit();
  if (ZEL_SUCCEEDED(r)) ++m_commits;
  return r;
}

void KeyValueStore::FailSetValueAt(std::uint64_t nth, zel::result_t code) {
  std::lock_guard lock(m_mutex);
  m_failSet = Fault{nth, code};
}

void KeyValueStore::FailCommitAt(std::uint64_t nth, zel::result_t code) {
  std::lock_guard lock(m_mutex);
  m_failCommit = Fault{nth, code};
}

std::uint64_t KeyValueStore::StagedCount() {
  std::lock_guard lock(m_mutex);
  if (!m_db.IsOpen()) return 0;
  StatementRun run(m_countStaged);
  zel::result_t r = zel::result::NoError;
  return m_countStaged.Step(&r) ? static_cast<std::uint64_t>(m_countStaged.ColumnInt(0)) : 0;
}

}  // namespace host
