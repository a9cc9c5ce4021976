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

  HashCacheStats Stats() const;
  std::size_t Capacity() const noexcept { return m_capacity; }

 private:
  struct StampHash {
    std::size_t operator()(const FileStamp& s) const noexcept;
  };
  struct Entry {
    FileStamp stamp;
    std::string sha256;
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
