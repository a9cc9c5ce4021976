// host::engine::HashCacheStore: the engine's HashCache kept across
// processes, in its own table ("hash_cache") of the host's SQLite state file,
// so that a second scan of an unchanged tree costs a walk, and enforcement
// started after a scan finds the scanned programs' hashes already known.
//
// One row per file version: the HashCache key (device, inode, size, mtime
// and ctime to the nanosecond), the SHA-256 as 32 bytes, and a use stamp.
// A process loads the most recently used rows into its cache when it starts
// (LoadInto) and writes back what it found or learned (Save) in one
// BEGIN IMMEDIATE ... COMMIT: a process killed during a write leaves the
// table as it was before it or after it. Nothing here runs on a decision.
//
// Why the key is safe: every write to a file moves its mtime and ctime, and
// whatever could give a path other content without a write (rename over,
// utimes back, truncate and rewrite, chmod) moves its ctime, which no
// process can set: only the clock moves it. A user without root can put
// mtime back but not ctime; putting ctime back takes changing the system
// clock or writing the raw device, both root's. An entry whose key no
// longer matches the file is never found. The store itself is trusted:
// whoever can write the state file can already change the settings.
// Where the key is not safe the engine does not use the cache at all (see
// StampsTrustedOn in file_facts.h): network and FUSE file systems (times
// and inode numbers come from a server or a user-space process), FAT and
// exFAT (ctime there is a settable creation time and inode numbers are
// made up per mount), and overlayfs (a copy-up gives a file a new identity
// whose times are copied from the lower one).
//
// The table holds at most `rowLimit` rows (kDefaultRowLimit, 262,144, about
// 25 MB of the store). A Save that leaves more evicts the least recently
// used rows in one batch down to 15/16 of the limit, so that eviction runs
// once in many saves rather than on every one. While the table is at most
// half full nothing is near eviction, and a row that was only found again
// is not rewritten for its new use stamp: a second scan of a large tree
// then writes nothing at all.
//
// Failures by name as the key-value store's (read-only AccessDenied,
// corrupt BasesCorrupted, full OutOfSpace). A table that is not what this
// code expects makes Open fail; the callers then go on without a cache.
// Not thread-safe: one owner serialises its use (the HashCache it fills
// and drains is thread-safe on its own).
#pragma once

#include <cstdint>
#include <string>

#include "host/engine/hash_cache.h"
#include "host/storage/sqlite_db.h"
#include "zel/result.h"

namespace host::engine {

class HashCacheStore {
 public:
  static constexpr std::int64_t kDefaultRowLimit = 262144;

  struct Options {
    std::int64_t rowLimit = kDefaultRowLimit;
    // Every write fails with AccessDenied (PRAGMA query_only), as on a
    // read-only medium.
    bool readOnly = false;
  };

  zel::result_t Open(const std::string& path);
  zel::result_t Open(const std::string& path, const Options& options);
  void Close() noexcept { m_db.Close(); }
  bool IsOpen() const noexcept { return m_db.IsOpen(); }

  // Fills `cache` with the most recently used rows, as many as it holds. A
  // row whose hash is not 32 bytes is skipped. On failure the cache is
  // cleared: nothing half-read stays.
  zel::result_t LoadInto(HashCache& cache);
  // Writes what `cache` learned since the last Save, and what it found when
  // the table is over half full, then evicts down to the bound. What a
  // failed Save took is not written again.
  zel::result_t Save(HashCache& cache);

  std::int64_t Rows();
  // Rows written by Save since Open.
  std::uint64_t Written() const noexcept { return m_written; }

 private:
  storage::StoreDatabase m_db;
  std::int64_t m_rowLimit = kDefaultRowLimit;
  std::uint64_t m_written = 0;
};

}  // namespace host::engine
