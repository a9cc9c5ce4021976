#include "host/engine/hash_cache_store.h"

#include <array>
#include <new>
#include <utility>
#include <vector>

namespace host::engine {

namespace {

// Keyed by the stamp alone (no rowid): one tree less to write per row.
// Use stamps are unique (a Save numbers its rows above every stored one,
// under the write lock), so eviction can cut at the n-th oldest.
constexpr const char* kSchema =
    "CREATE TABLE IF NOT EXISTS hash_cache("
    " device INTEGER NOT NULL, inode INTEGER NOT NULL, size INTEGER NOT NULL,"
    " mtime_ns INTEGER NOT NULL, ctime_ns INTEGER NOT NULL,"
    " sha256 BLOB NOT NULL, used INTEGER NOT NULL,"
    " PRIMARY KEY(device, inode, size, mtime_ns, ctime_ns)) WITHOUT ROWID;"
    "CREATE INDEX IF NOT EXISTS hash_cache_used ON hash_cache(used);";

enum Kept : std::size_t { kLoad, kPut, kMaxUsed, kCount, kEvict };

constexpr int kHexDigits = 64;

int Nibble(char c) noexcept {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  return -1;
}

// The 32 bytes of a lower-case hex SHA-256; false for anything else.
bool FromHex(const std::string& hex, std::array<std::uint8_t, 32>& out) noexcept {
  if (hex.size() != kHexDigits) return false;
  for (std::size_t i = 0; i < out.size(); ++i) {
    const int hi = Nibble(hex[2 * i]), lo = Nibble(hex[2 * i + 1]);
    if (hi < 0 || lo < 0) return false;
    out[i] = static_cast<std::uint8_t>(hi << 4 | lo);
  }
  return true;
}

std::string ToHex(std::span<const std::uint8_t> bytes) {
  static constexpr char kHex[] = "0123456789abcdef";
  std::string text(bytes.size() * 2, '0');
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    text[2 * i] = kHex[bytes[i] >> 4];
    text[2 * i + 1] = kHex[bytes[i] & 0xF];
  }
  return text;
}

// SQLite integers are signed: the unsigned fields go in by their bits.
std::int64_t Signed(std::uint64_t v) noexcept { return static_cast<std::int64_t>(v); }
std::uint64_t Unsigned(std::int64_t v) noexcept { return static_cast<std::uint64_t>(v); }

}  // namespace

zel::result_t HashCacheStore::Open(const std::string& path) { return Open(path, Options{}); }

zel::result_t HashCacheStore::Open(const std::string& path, const Options& options) {
  m_rowLimit = options.rowLimit > 0 ? options.rowLimit : 1;
  m_written = 0;
  zel::result_t r = m_db.Open(
      path, kSchema,
      {"SELECT device, inode, size, mtime_ns, ctime_ns, sha256 FROM hash_cache ORDER BY used DESC LIMIT ?1",
       "INSERT OR REPLACE INTO hash_cache(device, inode, size, mtime_ns, ctime_ns, sha256, used)"
       " VALUES(?1, ?2, ?3, ?4, ?5, ?6, ?7)",
       "SELECT coalesce(max(used), 0) FROM hash_cache", "SELECT count(*) FROM hash_cache",
       "DELETE FROM hash_cache WHERE used <= (SELECT used FROM hash_cache ORDER BY used LIMIT 1 OFFSET ?1 - 1)"});
  if (ZEL_SUCCEEDED(r) && options.readOnly) r = m_db.Db().Exec("PRAGMA query_only=1");
  if (ZEL_FAILED(r)) m_db.Close();
  return r;
}

zel::result_t HashCacheStore::LoadInto(HashCache& cache) {
  if (!IsOpen()) return zel::result::NotInitialized;
  storage::Statement& load = m_db.Kept(kLoad);
  load.Reset();
  zel::result_t r = load.Bind(1, static_cast<std::int64_t>(cache.Capacity()));
  try {
    while (ZEL_SUCCEEDED(r) && load.Step(&r)) {
      const std::span<const std::uint8_t> sha = load.ColumnBlob(5);
      if (sha.size() != 32) continue;
      FileStamp stamp;
      stamp.device = Unsigned(load.ColumnInt(0));
      stamp.inode = Unsigned(load.ColumnInt(1));
      stamp.size = Unsigned(load.ColumnInt(2));
      stamp.mtimeNs = load.ColumnInt(3);
      stamp.ctimeNs = load.ColumnInt(4);
      cache.Preload(stamp, ToHex(sha));
    }
  } catch (const std::bad_alloc&) {
    r = zel::result::OutOfMemory;
  }
  load.Reset();
  if (ZEL_FAILED(r)) cache.Clear();
  return r;
}

zel::result_t HashCacheStore::Save(HashCache& cache) {
  if (!IsOpen()) return zel::result::NotInitialized;
  const std::vector<HashCache::Touched> touched = cache.TakeTouched();
  if (touched.empty()) return zel::result::NoError;
  std::uint64_t written = 0;
  const zel::result_t r = m_db.InTransaction([&]() -> zel::result_t {
    const std::int64_t before = Rows();
    if (before < 0) return zel::result::UnspecifiedError;
    const bool refreshUses = before > m_rowLimit / 2;
    zel::result_t step = zel::result::NoError;
    storage::Statement& maxUsed = m_db.Kept(kMaxUsed);
    maxUsed.Reset();
    const std::int64_t base = maxUsed.Step(&step) ? maxUsed.ColumnInt(0) : 0;
    maxUsed.Reset();
    if (ZEL_FAILED(step)) return step;

    // The list comes most recently used first: the first gets the highest stamp.
    storage::Statement& put = m_db.Kept(kPut);
    std::int64_t used = base + static_cast<std::int64_t>(touched.size());
    for (const HashCache::Touched& entry : touched) {
      const FileStamp& stamp = entry.stamp;
      const std::int64_t use = used--;
      if (entry.preloaded && !refreshUses) continue;
      std::array<std::uint8_t, 32> sha{};
      if (!FromHex(entry.sha256, sha)) continue;
      put.Reset();
      zel::result_t b = put.Bind(1, Signed(stamp.device));
      if (ZEL_SUCCEEDED(b)) b = put.Bind(2, Signed(stamp.inode));
      if (ZEL_SUCCEEDED(b)) b = put.Bind(3, Signed(stamp.size));
      if (ZEL_SUCCEEDED(b)) b = put.Bind(4, stamp.mtimeNs);
      if (ZEL_SUCCEEDED(b)) b = put.Bind(5, stamp.ctimeNs);
      if (ZEL_SUCCEEDED(b)) b = put.BindBorrowed(6, sha);
      if (ZEL_SUCCEEDED(b)) b = put.Bind(7, use);
      if (ZEL_SUCCEEDED(b)) b = put.Run();
      put.Reset();
      if (ZEL_FAILED(b)) return b;
      ++written;
    }

    const std::int64_t rows = Rows();
    if (rows < 0) return zel::result::UnspecifiedError;
    if (rows <= m_rowLimit) return zel::result::NoError;
    storage::Statement& evict = m_db.Kept(kEvict);
    evict.Reset();
    zel::result_t e = evict.Bind(1, rows - m_rowLimit + m_rowLimit / 16);
    if (ZEL_SUCCEEDED(e)) e = evict.Run();
    evict.Reset();
    return e;
  });
  if (ZEL_SUCCEEDED(r)) m_written += written;
  return r;
}

std::int64_t HashCacheStore::Rows() {
  if (!IsOpen()) return -1;
  storage::Statement& count = m_db.Kept(kCount);
  count.Reset();
  zel::result_t r = zel::result::NoError;
  const std::int64_t n = count.Step(&r) ? count.ColumnInt(0) : -1;
  count.Reset();
  return ZEL_SUCCEEDED(r) ? n : -1;
}

}  // namespace host::engine
