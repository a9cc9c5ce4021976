#include "host/storage/key_value_store.h"

#include <algorithm>
#include <cstring>
#include <new>
#include <span>
#include <string>

#include "host/services/fault_switchboard.h"

namespace host {

namespace {

std::span<const std::uint8_t> Bytes(const app_core::component::IKeyValueStorage::KeyRange& key) noexcept {
  return {reinterpret_cast<const std::uint8_t*>(key.first), key.size()};
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
  m_staged.clear();
  m_readOnly = options.readOnly;
  zel::result_t r = m_db.Open(path, options.busyTimeoutMs);
  // WAL: readers of the file don't wait for a commit and a commit is one
  // append. FULL: a committed inventory survives a power cut, not only a
  // crash of this process. The journal mode is the first read of the file,
  // so a file that isn't a database fails right here.
  // The page size only counts for a file created here (see sqlite_db.h).
  if (ZEL_SUCCEEDED(r)) r = m_db.Exec(storage::kPageSizePragma);
  if (ZEL_SUCCEEDED(r)) r = m_db.Exec("PRAGMA journal_mode=WAL; PRAGMA synchronous=FULL;");
  // A Commit of a whole scan writes every page once; a cache that holds a
  // few thousand of them keeps the B-tree's upper levels and the pages being
  // filled from spilling to the log in the middle of the transaction.
  if (ZEL_SUCCEEDED(r)) r = m_db.Exec("PRAGMA main.cache_size=-32768");
  if (ZEL_SUCCEEDED(r)) {
    // Rowid tables: a record of a kilobyte or two stays inside its page,
    // where an index-organised row would spill most of it to an overflow
    // page of its own.
    r = m_db.Exec("CREATE TABLE IF NOT EXISTS main.key_value (key BLOB PRIMARY KEY, value BLOB NOT NULL);");
  }
  if (ZEL_SUCCEEDED(r) && options.readOnly) r = m_db.Exec("PRAGMA query_only=1");
  if (ZEL_SUCCEEDED(r) && options.maxPageCount > 0) {
    r = m_db.Exec(("PRAGMA main.max_page_count=" + std::to_string(options.maxPageCount)).c_str());
  }
  if (ZEL_SUCCEEDED(r)) r = m_get.Prepare(m_db, "SELECT value FROM main.key_value WHERE key = ?1");
  // Answered from the key's index alone, without reading the row.
  if (ZEL_SUCCEEDED(r)) r = m_exists.Prepare(m_db, "SELECT 1 FROM main.key_value WHERE key = ?1");
  if (ZEL_SUCCEEDED(r)) r = m_put.Prepare(m_db, "INSERT OR REPLACE INTO main.key_value (key, value) VALUES (?1, ?2)");
  if (ZEL_SUCCEEDED(r)) r = m_remove.Prepare(m_db, "DELETE FROM main.key_value WHERE key = ?1");
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
  m_staged.clear();  // never committed, so never stored
}

void KeyValueStore::FinalizeAll() noexcept {
  // Statements go before the connection they belong to.
  for (storage::Statement* s : {&m_get, &m_exists, &m_put, &m_remove}) s->Finalize();
}

zel::result_t KeyValueStore::LookupCommitted(const KeyRange& key, bool& found, Value* value) {
  storage::Statement& statement = value != nullptr ? m_get : m_exists;
  StatementRun run(statement);
  zel::result_t r = statement.BindBorrowed(1, Bytes(key));
  if (ZEL_FAILED(r)) return r;
  found = statement.Step(&r);
  if (ZEL_FAILED(r)) return r;
  if (found && value != nullptr) CopyOut(statement.ColumnBlob(0), *value);
  return zel::result::NoError;
}

zel::result_t KeyValueStore::Stage(const KeyRange& key, const ValueRange* value) {
  // Refused now rather than at Commit, where the rest of the batch would
  // wait behind it.
  if (m_readOnly) return zel::result::AccessDenied;
  try {
    // The bytes are copied before the map changes, so running out of memory
    // leaves what was staged under the key as it was.
    Staged fresh;
    if (value != nullptr) {
      fresh.bytes.assign(value->first, value->first + value->size());
    } else {
      fresh.removed = true;
    }
    const std::string_view name(key.first, key.size());
    auto at = m_staged.find(name);
    if (at == m_staged.end()) {
      m_staged.emplace(std::string(name), std::move(fresh));
    } else {
      at->second = std::move(fresh);
    }
  } catch (const std::bad_alloc&) {
    return zel::result::OutOfMemory;
  }
  return zel::result::NoError;
}

zel::result_t KeyValueStore::GetValue(const KeyRange& key, Value& value) {
  if (const zel::result_t fault = FaultAt(FaultPoint::KvGetValue)) return fault;
  std::lock_guard lock(m_mutex);
  if (!m_db.IsOpen()) return zel::result::NotInitialized;
  try {
    Value read;
    const auto staged = m_staged.find(std::string_view(key.first, key.size()));
    if (staged != m_staged.end()) {
      if (staged->second.removed) return zel::result::NotFound;
      CopyOut(staged->second.bytes, read);
    } else {
      bool found = false;
      const zel::result_t r = LookupCommitted(key, found, &read);
      if (ZEL_FAILED(r)) return r;
      if (!found) return zel::result::NotFound;
    }
    value.swap(read);
  } catch (const std::bad_alloc&) {
    return zel::result::OutOfMemory;
  }
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
  const auto staged = m_staged.find(std::string_view(key.first, key.size()));
  if (staged != m_staged.end()) {
    if (staged->second.removed) return zel::result::False;
  } else {
    bool found = false;
    const zel::result_t r = LookupCommitted(key, found, nullptr);
    if (ZEL_FAILED(r)) return r;
    if (!found) return zel::result::False;
  }
  return Stage(key, nullptr);
}

std::vector<const KeyValueStore::StagedMap::value_type*> KeyValueStore::StagedInKeyOrder() const {
  // Sorted by the keys' first eight bytes, read big-endian and zero-padded
  // (so the same order as memcmp), held beside the entry: most comparisons
  // are settled without touching the entries, which lie all over the heap.
  struct Slot {
    std::uint64_t prefix;
    const StagedMap::value_type* entry;
  };
  std::vector<Slot> slots;
  slots.reserve(m_staged.size());
  for (const auto& entry : m_staged) {
    std::uint64_t prefix = 0;
    const std::string& key = entry.first;
    for (std::size_t i = 0; i < 8; ++i) {
      prefix = (prefix << 8) | (i < key.size() ? static_cast<unsigned char>(key[i]) : 0u);
    }
    slots.push_back({prefix, &entry});
  }
  std::sort(slots.begin(), slots.end(), [](const Slot& a, const Slot& b) {
    if (a.prefix != b.prefix) return a.prefix < b.prefix;
    return a.entry->first < b.entry->first;  // char_traits<char> compares as unsigned bytes
  });
  std::vector<const StagedMap::value_type*> order;
  order.reserve(slots.size());
  for (const Slot& slot : slots) order.push_back(slot.entry);
  return order;
}

zel::result_t KeyValueStore::WriteStaged(const std::vector<const StagedMap::value_type*>& order) {
  for (const StagedMap::value_type* entry : order) {
    const auto& [key, change] = *entry;
    const std::span<const std::uint8_t> name(reinterpret_cast<const std::uint8_t*>(key.data()), key.size());
    storage::Statement& statement = change.removed ? m_remove : m_put;
    StatementRun run(statement);
    zel::result_t r = statement.BindBorrowed(1, name);
    if (ZEL_SUCCEEDED(r) && !change.removed) r = statement.BindBorrowed(2, change.bytes);
    if (ZEL_SUCCEEDED(r)) r = statement.Run();
    if (ZEL_FAILED(r)) return r;
  }
  return zel::result::NoError;
}

zel::result_t KeyValueStore::Commit() {
  if (const zel::result_t fault = FaultAt(FaultPoint::KvCommit)) return fault;
  std::lock_guard lock(m_mutex);
  if (m_failCommit.Fire()) return m_failCommit.code;
  if (!m_db.IsOpen()) return zel::result::NotInitialized;
  std::vector<const StagedMap::value_type*> order;
  try {
    order = StagedInKeyOrder();
  } catch (const std::bad_alloc&) {
    return zel::result::OutOfMemory;  // before the transaction: nothing to roll back
  }
  storage::Transaction tx(m_db);
  zel::result_t r = tx.Begin();
  if (ZEL_SUCCEEDED(r)) r = WriteStaged(order);
  if (ZEL_SUCCEEDED(r)) r = tx.Commit();
  // A failure rolls the table back and keeps everything staged, so that the
  // next Commit tries it all again.
  if (ZEL_FAILED(r)) return r;
  m_staged.clear();
  ++m_commits;
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
  return m_staged.size();
}

}  // namespace host
