// host::KeyValueStore: the reference host's app_core::component::IKeyValueStorage,
// one table ("key_value") in the host's SQLite state file, next to the
// service settings and the categories.
//
// Writes and removals are staged in a temporary table private to this
// connection and moved into the real table at Commit, inside one
// BEGIN IMMEDIATE ... COMMIT. Consecutive writes share one transaction of
// the temporary database, so staging a record costs no journal round. So the database's write lock is held only for
// the length of a Commit (the settings and categories services share the
// file and must not wait for a whole inventory scan), staged data that no
// longer fits the page cache spills to a temporary file instead of memory,
// and a process killed before or during Commit leaves the last committed
// state: the staging table dies with the connection. Reads see this
// connection's staged changes first.
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
#include <mutex>
#include <string>

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

  // With m_mutex held. `found`: a row exists; `removed`: it is a staged removal.
  zel::result_t LookupStaged(const KeyRange& key, bool& found, bool& removed, Value* value);
  zel::result_t LookupCommitted(const KeyRange& key, bool& found, Value* value);
  zel::result_t Stage(const KeyRange& key, const ValueRange* value);
  // Staged writes run in one transaction of the temporary database, ended
  // before any read of the file and at Commit.
  zel::result_t BeginStaging();
  zel::result_t EndStaging();
  void FinalizeAll() noexcept;

  std::mutex m_mutex;
  storage::Database m_db;
  storage::Statement m_get;
  storage::Statement m_getStaged;
  storage::Statement m_stage;
  storage::Statement m_applyRemovals;
  storage::Statement m_applyWrites;
  storage::Statement m_clearStage;
  storage::Statement m_countStaged;
  bool m_staging = false;
  Fault m_failSet;
  Fault m_failCommit;
  std::atomic<std::uint64_t> m_commits{0};
};

}  // namespace host
