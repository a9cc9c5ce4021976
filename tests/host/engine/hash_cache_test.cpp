// The engine's hash cache, in memory and kept in the store: what counts as
// the same file, its bound and least-recently-used order, lookups from many
// threads, what the store gives back and keeps, a table that can't be used,
// and a writer killed in the middle of a write. (A second acctl finding the
// first one's hashes is tried end to end by the acctl scan tests.)
#include <gtest/gtest.h>
#include <signal.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "engine_test_support.h"
#include "host/engine/hash_cache.h"
#include "host/engine/hash_cache_store.h"

namespace {

using host::engine::FileStamp;
using host::engine::HashCache;
using host::engine::HashCacheStore;

FileStamp Stamp(std::uint64_t inode) {
  FileStamp s;
  s.device = 0xFFFF'0000'0000'0001ull;  // above INT64_MAX: the store keeps it by its bits
  s.inode = inode;
  s.size = 100 + inode;
  s.mtimeNs = 1'700'000'000'000'000'000 + static_cast<std::int64_t>(inode);
  s.ctimeNs = -1;
  return s;
}

std::string Hex(unsigned n) {
  std::string text(64, '0');
  for (int i = 0; i < 64; ++i) text[i] = "0123456789abcdef"[(n + static_cast<unsigned>(i)) % 16];
  return text;
}

TEST(HashCache, EveryStampFieldTellsFilesApart) {
  HashCache cache(16);
  const FileStamp base = Stamp(10);
  cache.Insert(base, "aa");
  ASSERT_EQ(cache.Find(base), "aa");
  const struct {
    const char* what;
    void (*change)(FileStamp&);
  } cases[] = {
      {"device", [](FileStamp& s) { s.device += 1; }}, {"inode", [](FileStamp& s) { s.inode += 1; }},
      {"size", [](FileStamp& s) { s.size += 1; }},     {"mtime", [](FileStamp& s) { s.mtimeNs += 1; }},
      {"ctime", [](FileStamp& s) { s.ctimeNs += 1; }},
  };
  for (const auto& c : cases) {
    FileStamp changed = base;
    c.change(changed);
    EXPECT_FALSE(cache.Find(changed).has_value()) << c.what;
  }
  const host::engine::HashCacheStats stats = cache.Stats();
  EXPECT_EQ(stats.hits, 1u);
  EXPECT_EQ(stats.misses, 5u);

  struct stat st {};
  st.st_dev = 7, st.st_ino = 8, st.st_size = 9, st.st_mtim = {100, 5}, st.st_ctim = {200, 6};
  const FileStamp s = FileStamp::FromStat(st);
  EXPECT_EQ(std::vector<std::uint64_t>({s.device, s.inode, s.size}), std::vector<std::uint64_t>({7, 8, 9}));
  EXPECT_EQ(s.mtimeNs, 100'000'000'005);
  EXPECT_EQ(s.ctimeNs, 200'000'000'006);
}

TEST(HashCache, BoundedWithLeastRecentlyUsedEviction) {
  HashCache cache(3);
  for (unsigned i = 1; i <= 3; ++i) cache.Insert(Stamp(i), Hex(i));
  ASSERT_TRUE(cache.Find(Stamp(1)).has_value());  // 1 is now the most recent; 2 the oldest
  cache.Insert(Stamp(4), Hex(4));
  EXPECT_FALSE(cache.Find(Stamp(2)).has_value());
  for (unsigned i : {1u, 3u, 4u}) EXPECT_EQ(cache.Find(Stamp(i)), Hex(i)) << i;

  cache.Insert(Stamp(3), "3b");  // a replacement takes no room
  EXPECT_EQ(cache.Find(Stamp(3)), "3b");
  EXPECT_EQ(cache.Stats().entries, 3u);
  EXPECT_EQ(cache.Stats().evictions, 1u);

  cache.Clear();
  EXPECT_EQ(cache.Stats().entries, 0u);
  EXPECT_FALSE(cache.Find(Stamp(1)).has_value());

  HashCache none(0);
  none.Insert(Stamp(1), "1");
  EXPECT_FALSE(none.Find(Stamp(1)).has_value());
  EXPECT_EQ(none.Stats().entries, 0u);
}

TEST(HashCache, ConcurrentLookupsAndInsertsStayConsistent) {
  constexpr std::uint64_t kKeys = 200;
  HashCache cache(64);  // smaller than the key set: evictions race with lookups
  std::vector<std::thread> threads;
  std::atomic<int> wrong{0};
  for (std::uint64_t t = 0; t < 4; ++t) {
    threads.emplace_back([&, t] {
      for (std::uint64_t i = 0; i < 20000; ++i) {
        const std::uint64_t key = (i * 7 + t * 13) % kKeys;
        if (auto found = cache.Find(Stamp(key))) {
          if (*found != std::to_string(key)) ++wrong;
        } else {
          cache.Insert(Stamp(key), std::to_string(key));
        }
      }
    });
  }
  for (std::thread& t : threads) t.join();
  EXPECT_EQ(wrong.load(), 0);
  const host::engine::HashCacheStats stats = cache.Stats();
  EXPECT_EQ(stats.hits + stats.misses, 80000u);
  EXPECT_LE(stats.entries, 64u);
  EXPECT_EQ(stats.insertions - stats.evictions, stats.entries);
}

void Exec(const std::string& path, const char* sql) {
  sqlite3* db = nullptr;
  ASSERT_EQ(sqlite3_open(path.c_str(), &db), SQLITE_OK);
  EXPECT_EQ(sqlite3_exec(db, sql, nullptr, nullptr, nullptr), SQLITE_OK) << sqlite3_errmsg(db);
  sqlite3_close(db);
}

class HashCacheStoreTest : public ::testing::Test {
 protected:
  std::string Db() const { return dir.Path() + "/state.db"; }

  engine_test::ScratchDir dir;
};

TEST_F(HashCacheStoreTest, LoadsTheMostRecentlyUsedFirstAndEvictsTheOldestInBatches) {
  HashCacheStore::Options options;
  options.rowLimit = 32;
  HashCacheStore store;
  ASSERT_EQ(store.Open(Db(), options), 0);
  for (unsigned round = 0; round < 5; ++round) {
    HashCache cache(64);
    for (unsigned i = 0; i < 10; ++i) cache.Insert(Stamp(round * 10 + i), Hex(round * 10 + i));
    ASSERT_EQ(store.Save(cache), 0);
    EXPECT_LE(store.Rows(), 32);
  }
  // Each overflow (at 40 rows) went down to the limit less a sixteenth.
  EXPECT_EQ(store.Rows(), 30);
  HashCache all(64);
  ASSERT_EQ(store.LoadInto(all), 0);
  EXPECT_FALSE(all.Find(Stamp(19)).has_value()) << "the oldest went first";
  EXPECT_TRUE(all.Find(Stamp(20)).has_value());

  HashCache small(3);
  ASSERT_EQ(store.LoadInto(small), 0);
  EXPECT_EQ(small.Stats().entries, 3u);
  EXPECT_TRUE(small.TakeTouched().empty()) << "a load is no use";
  for (unsigned inode : {49u, 48u, 47u}) EXPECT_EQ(small.Find(Stamp(inode)), Hex(inode)) << inode;
  ASSERT_EQ(small.TakeTouched().size(), 3u);

  // Only what was used since goes back, and it becomes the newest.
  small.Find(Stamp(49));
  ASSERT_EQ(store.Save(small), 0);
  EXPECT_EQ(store.Written(), 51u);
  HashCache newest(1);
  ASSERT_EQ(store.LoadInto(newest), 0);
  EXPECT_TRUE(newest.Find(Stamp(49)).has_value());

  // Far from the bound, a row only found again is not rewritten; a new one is.
  options.rowLimit = 1000;
  HashCacheStore roomy;
  ASSERT_EQ(roomy.Open(dir.Path() + "/roomy.db", options), 0);
  HashCache first(8), second(8);
  first.Insert(Stamp(1), Hex(1));
  ASSERT_EQ(roomy.Save(first), 0);
  ASSERT_EQ(roomy.LoadInto(second), 0);
  ASSERT_TRUE(second.Find(Stamp(1)).has_value());
  second.Insert(Stamp(2), Hex(2));
  ASSERT_EQ(roomy.Save(second), 0);
  EXPECT_EQ(roomy.Written(), 2u);
  EXPECT_EQ(roomy.Rows(), 2);
}

TEST_F(HashCacheStoreTest, AnUnusableTableOrRowIsRefusedAndAReadOnlyStoreWritesNothing) {
  Exec(Db(), "CREATE TABLE hash_cache(x)");
  HashCacheStore store;
  EXPECT_NE(store.Open(Db()), 0) << "a table of another shape";
  EXPECT_FALSE(store.IsOpen());
  HashCache cache(4);
  EXPECT_NE(store.LoadInto(cache), 0);
  EXPECT_NE(store.Save(cache), 0);

  std::filesystem::remove(Db());
  ASSERT_EQ(store.Open(Db()), 0);
  cache.Insert(Stamp(1), Hex(1));
  cache.Insert(Stamp(2), Hex(2));
  ASSERT_EQ(store.Save(cache), 0);
  store.Close();
  Exec(Db(), "UPDATE hash_cache SET sha256 = x'00' WHERE inode = 1");
  HashCacheStore::Options readOnly;
  readOnly.readOnly = true;
  ASSERT_EQ(store.Open(Db(), readOnly), 0);
  HashCache loaded(4);
  ASSERT_EQ(store.LoadInto(loaded), 0);
  EXPECT_FALSE(loaded.Find(Stamp(1)).has_value()) << "a hash of the wrong length";
  EXPECT_EQ(loaded.Find(Stamp(2)), Hex(2));
  loaded.Insert(Stamp(3), Hex(3));
  EXPECT_EQ(store.Save(loaded), zel::result::AccessDenied);
  EXPECT_EQ(store.Rows(), 2);
}

// A writer rewrites every row with the hash of its round, in one write each
// round, until it is killed: the rows must all be of one round.
TEST_F(HashCacheStoreTest, AWriterKilledDuringAWriteLeavesTheOldRowsOrTheNew) {
  constexpr unsigned kRows = 3000;
  std::mt19937 random(std::random_device{}());
  for (int attempt = 0; attempt < 5; ++attempt) {
    SCOPED_TRACE(attempt);
    std::filesystem::remove(Db());
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
      HashCacheStore store;
      if (store.Open(Db()) != 0) _exit(1);
      for (unsigned round = 0;; ++round) {
        HashCache cache(kRows);
        for (unsigned i = 0; i < kRows; ++i) cache.Insert(Stamp(i), Hex(round));
        if (store.Save(cache) != 0) _exit(2);
      }
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(50 + random() % 300));
    ASSERT_EQ(kill(child, SIGKILL), 0);
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFSIGNALED(status)) << "the writer stopped by itself: " << status;

    HashCacheStore store;
    ASSERT_EQ(store.Open(Db()), 0) << "the store stays readable";
    HashCache loaded(kRows);
    ASSERT_EQ(store.LoadInto(loaded), 0);
    const std::int64_t rows = store.Rows();
    ASSERT_TRUE(rows == 0 || rows == kRows) << rows;
    std::set<std::string> hashes;
    for (unsigned i = 0; rows != 0 && i < kRows; ++i) hashes.insert(loaded.Find(Stamp(i)).value_or("missing"));
    EXPECT_LE(hashes.size(), 1u) << "rows of two rounds";
  }
}

}  // namespace
