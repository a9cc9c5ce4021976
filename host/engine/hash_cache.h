// host::engine::HashCache: remembers the SHA-256 of file contents by the
// file's identity and change stamps, so that a file nobody touched is never
// hashed twice: not by a second inventory scan, not by the next start of
// the same program.
//
// The key is (device, inode, size, mtime, ctime), times to the nanosecond.
// Any write changes mtime, and anything that could swap the content without
// a write (rename over, utimes back, truncate) changes ctime, which user
// space cannot set; so a changed file always misses. (The engine does not
// store a hash of a file changed within the last clock ticks: two writes in
// one tick would leave the stamps equal.) The cache is bounded:
// the least recently used entry goes when a new one would overflow it. All
// operations are thread-safe.
//
// The cache can outlive the process through a HashCacheStore: Preload
// fills it from the store without counting as use, and TakeTouched hands
// the store what was found or learned since the last time, so that only
// that is written back.
#pragma once

#include <sys/stat.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <list>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

namespace host::engine {

struct FileStamp {
  std::uint64_t device = 0;
  std::uint64_t inode = 0;
  std::uint64_t size = 0;
  std::int64_t mtimeNs = 0;
  std::int64_t ctimeNs = 0;

  static FileStamp FromStat(const struct stat& st) noexcept;
  friend bool operator==(const FileStamp&, const FileStamp&) = default;
};

struct HashCacheStats {
  std::uint64_t hits = 0;
  std::uint64_t misses = 0;
  std::uint64_t insertions = 0;
  std::uint64_t evictions = 0;
  std::size_t entries = 0;
};

class HashCache {
 public:
  static constexpr std::size_t kDefaultCapacity = 16384;

  // `capacity` 0 keeps nothing: every lookup misses.
  explicit HashCache(std::size_t capacity = kDefaultCapacity);
  HashCache(const HashCache&) = delete;
  HashCache& operator=(const HashCache&) = delete;

  // The hash stored for `stamp`, which becomes the most recently used.
  std::optional<std::string> Find(const FileStamp& stamp);
  // Stores or replaces the hash of `stamp`; may evict the oldest entry.
  void Insert(const FileStamp& stamp, std::string sha256);
  // Forgets every entry; the counters stay.
  void Clear();

  // Adds an entry behind every other (the next to go), not as a use: for
  // filling the cache from a store, most recently used first. Does nothing
  // when the stamp is there already or the cache is full.
  void Preload(const FileStamp& stamp, std::string sha256);
  struct Touched {
    FileStamp stamp;
    std::string sha256;
    bool preloaded;  // came from Preload and was only found since
  };
  // The entries found or inserted since the last call, most recently used
  // first; they count as untouched afterwards.
  std::vector<Touched> TakeTouched();

  HashCacheStats Stats() const;
  std::size_t Capacity() const noexcept { return m_capacity; }

 private:
  struct StampHash {
    std::size_t operator()(const FileStamp& s) const noexcept;
  };
  struct Entry {
    FileStamp stamp;
    std::string sha256;
    // Found or inserted since the last TakeTouched. A use moves the entry
    // to the front, so the touched entries are always a prefix of m_lru.
    bool touched = true;
    bool preloaded = false;
  };
  using Lru = std::list<Entry>;  // front: most recently used

  const std::size_t m_capacity;
  mutable std::mutex m_mutex;
  Lru m_lru;
  std::unordered_map<FileStamp, Lru::iterator, StampHash> m_index;
  std::atomic<std::uint64_t> m_hits{0};
  std::atomic<std::uint64_t> m_misses{0};
  std::atomic<std::uint64_t> m_insertions{0};
  std::atomic<std::uint64_t> m_evictions{0};
};

}  // namespace host::engine
