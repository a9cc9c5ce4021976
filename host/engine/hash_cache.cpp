#include "host/engine/hash_cache.h"

#include <algorithm>
#include <iterator>
#include <utility>

namespace host::engine {

namespace {

std::int64_t Nanoseconds(const struct timespec& t) noexcept {
  return static_cast<std::int64_t>(t.tv_sec) * 1'000'000'000 + static_cast<std::int64_t>(t.tv_nsec);
}

// One mixing step of a 64-bit hash combine (the golden-ratio constant
// spreads consecutive inode numbers over the buckets).
std::size_t Mix(std::size_t seed, std::uint64_t value) noexcept {
  return seed ^ (static_cast<std::size_t>(value) + 0x9E3779B97F4A7C15ULL + (seed << 6) + (seed >> 2));
}

}  // namespace

FileStamp FileStamp::FromStat(const struct stat& st) noexcept {
  FileStamp s;
  s.device = static_cast<std::uint64_t>(st.st_dev);
  s.inode = static_cast<std::uint64_t>(st.st_ino);
  s.size = static_cast<std::uint64_t>(st.st_size);
  s.mtimeNs = Nanoseconds(st.st_mtim);
  s.ctimeNs = Nanoseconds(st.st_ctim);
  return s;
}

std::size_t HashCache::StampHash::operator()(const FileStamp& s) const noexcept {
  std::size_t h = Mix(0, s.inode);
  h = Mix(h, s.device);
  h = Mix(h, s.size);
  h = Mix(h, static_cast<std::uint64_t>(s.mtimeNs));
  return Mix(h, static_cast<std::uint64_t>(s.ctimeNs));
}

HashCache::HashCache(std::size_t capacity) : m_capacity(capacity) {
  // Buckets for a whole scan up front: no rehash in the middle of one.
  m_index.reserve(std::min<std::size_t>(capacity, std::size_t{1} << 18));
}

std::optional<std::string> HashCache::Find(const FileStamp& stamp) {
  std::lock_guard lock(m_mutex);
  const auto it = m_index.find(stamp);
  if (it == m_index.end()) {
    m_misses.fetch_add(1, std::memory_order_relaxed);
    return std::nullopt;
  }
  m_lru.splice(m_lru.begin(), m_lru, it->second);
  it->second->touched = true;
  m_hits.fetch_add(1, std::memory_order_relaxed);
  return it->second->sha256;
}

void HashCache::Insert(const FileStamp& stamp, std::string sha256) {
  if (m_capacity == 0) return;
  std::lock_guard lock(m_mutex);
  if (const auto it = m_index.find(stamp); it != m_index.end()) {
    it->second->sha256 = std::move(sha256);
    it->second->touched = true;
    it->second->preloaded = false;
    m_lru.splice(m_lru.begin(), m_lru, it->second);
    return;
  }
  // Make room first, so that the map never holds more than the capacity.
  if (m_index.size() >= m_capacity) {
    m_index.erase(m_lru.back().stamp);
    m_lru.pop_back();
    m_evictions.fetch_add(1, std::memory_order_relaxed);
  }
  m_lru.push_front(Entry{stamp, std::move(sha256)});
  try {
    m_index.emplace(stamp, m_lru.begin());
  } catch (...) {
    m_lru.pop_front();
    throw;
  }
  m_insertions.fetch_add(1, std::memory_order_relaxed);
}

void HashCache::Clear() {
  std::lock_guard lock(m_mutex);
  m_index.clear();
  m_lru.clear();
}

void HashCache::Preload(const FileStamp& stamp, std::string sha256) {
  std::lock_guard lock(m_mutex);
  if (m_index.size() >= m_capacity || m_index.contains(stamp)) return;
  m_lru.push_back(Entry{stamp, std::move(sha256), false, true});
  try {
    m_index.emplace(stamp, std::prev(m_lru.end()));
  } catch (...) {
    m_lru.pop_back();
    throw;
  }
}

std::vector<HashCache::Touched> HashCache::TakeTouched() {
  std::vector<Touched> out;
  std::lock_guard lock(m_mutex);
  auto it = m_lru.begin();
  for (; it != m_lru.end() && it->touched; ++it) out.push_back(Touched{it->stamp, it->sha256, it->preloaded});
  // Cleared only once every copy is made: a failed copy leaves them touched.
  for (auto jt = m_lru.begin(); jt != it; ++jt) jt->touched = false;
  return out;
}

HashCacheStats HashCache::Stats() const {
  HashCacheStats s;
  s.hits = m_hits.load(std::memory_order_relaxed);
  s.misses = m_misses.load(std::memory_order_relaxed);
  s.insertions = m_insertions.load(std::memory_order_relaxed);
  s.evictions = m_evictions.load(std::memory_order_relaxed);
  std::lock_guard lock(m_mutex);
  s.entries = m_index.size();
  return s;
}

}  // namespace host::engine
