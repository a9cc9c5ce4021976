// host::KeyValueStore: the reference host's app_core::component::IKeyValueStorage,
// one table ("key_value") in the host's SQLite state file, next to the
// service settings and the categories.
//
// Writes and removals are staged in this object's memory, hashed by key,
// and written into the table at Commit, inside one BEGIN IMMEDIATE ...
// COMMIT. So the database's write lock is held only for the length of a
// Commit (the settings and categories services share the file and must not
// wait for a whole inventory scan), staging a record costs a copy of its
// bytes and nothing else, and a process killed before or during Commit
// leaves the last committed state: the staged changes die with it. The
// price is memory: everything staged since the last Commit is held here (a
// scan's records). Keys go to the table in their byte order, sorted once at
// Commit, which keeps the key index growing at one end during a large
// Commit. Reads see this object's staged changes first.
//
// Failures by name: a key not stored NotFound; not open NotInitialized; a
// read-only database AccessDenied; a corrupt file or one that is not SQLite
// BasesCorrupted; a full disk OutOfSpace; another writer holding the lock
// past the busy timeout Locked. A failed Commit keeps everything staged, so
// it can be tried again.
//
// Thread safety: every operation holds one mutex.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "app_control/interfaces/ikey_value_storage.h"
#include "host/services/host_object.h"
#include "host/storage/sqlite_db.h"

namespace host {

class KeyValueStore final : public OwnedObject<KeyValueStore, app_core::component::IKeyValueStorage> {
 public:
  struct Options {
    // Every write fails with AccessDenied (PRAGMA query_only), as on a
    // read-only medium.
    bool readOnly = false;
    // Above 0: the file may not grow beyond this many pages, and a commit
    // that would need more fails with OutOfSpace, as on a full disk.
    std::int64_t maxPageCount = 0;
    int busyTimeoutMs = 10000;
  };

  KeyValueStore() = default;
  KeyValueStore(const KeyValueStore&) = delete;
  KeyValueStore& operator=(const KeyValueStore&) = delete;
  ~KeyValueStore();

  // Opens or creates the store in the database at `path` (":memory:" for a
  // private one). Anything staged before is dropped.
  zel::result_t Open(const std::string& path);
  zel::result_t Open(const std::string& path, const Options& options);
  void Close();

  zel::result_t GetValue(const KeyRange& key, Value& value) override;
  zel::result_t SetValue(const KeyRange& key, const ValueRange& value) override;
  zel::result_t RemoveValue(const KeyRange& key) override;
  zel::result_t Commit() override;

  // ---- fault injection: the Nth call from now (1 = the next one) fails with
  // `code` without touching anything; 0 disarms.
  void FailSetValueAt(std::uint64_t nth, zel::result_t code);
  void FailCommitAt(std::uint64_t nth, zel::result_t code);

  // ---- observations ----------------------------------------------------------
  std::uint64_t Commits() const { return m_commits.load(); }
  // Staged writes and removals not yet committed.
  std::uint64_t StagedCount();

 private:
  struct Fault {
    std::uint64_t countdown = 0;
    zel::result_t code = 0;
    // True (and disarmed) when this call is the one to fail.
    bool Fire() noexcept;
  };

  // A staged change: the bytes to write, or a removal.
  struct Staged {
    bool removed = false;
    std::vector<std::uint8_t> bytes;
  };
  // A scan stages its records in random key order: hashing them costs far
  // less than keeping a tree ordered; Commit sorts once.
  struct KeyHash {
    using is_transparent = void;
    std::size_t operator()(std::string_view key) const noexcept { return std::hash<std::string_view>{}(key); }
  };
  using StagedMap = std::unordered_map<std::string, Staged, KeyHash, std::equal_to<>>;

  // With m_mutex held.
  zel::result_t LookupCommitted(const KeyRange& key, bool& found, Value* value);
  zel::result_t Stage(const KeyRange& key, const ValueRange* value);
  // The staged entries in key byte order, the order SQLite compares BLOB
  // keys in. May throw std::bad_alloc.
  std::vector<const StagedMap::value_type*> StagedInKeyOrder() const;
  zel::result_t WriteStaged(const std::vector<const StagedMap::value_type*>& order);
  void FinalizeAll() noexcept;

  std::mutex m_mutex;
  storage::Database m_db;
  storage::Statement m_get;
  storage::Statement m_exists;
  storage::Statement m_put;
  storage::Statement m_remove;
  StagedMap m_staged;
  bool m_readOnly = false;
  Fault m_failSet;
  Fault m_failCommit;
  std::atomic<std::uint64_t> m_commits{0};
};

}  // namespace host
