// The hash cache kept in the store: what a second process finds of the
// first one's hashes (and what it must not find), the bound, a table that
// can't be used, and a writer killed in the middle of a write.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <random>
#include <set>
#include <string>
#include <thread>

#include "engine_test_support.h"
#include "host/engine/engine.h"
#include "host/engine/hash_cache_store.h"
#include "host/services/file_stream.h"
#include "tov_common/inventory/application_info.h"

namespace {

using host::engine::FileStamp;
using host::engine::HashCache;
using host::engine::HashCacheStore;

std::string Hex(unsigned n) {
  char text[65];
  for (int i = 0; i < 64; ++i) text[i] = "0123456789abcdef"[(n + static_cast<unsigned>(i)) % 16];
  text[64] = '\0';
  return text;
}

FileStamp Stamp(std::uint64_t inode) {
  FileStamp s;
  s.device = 0xFFFF'0000'0000'0001ull;  // above INT64_MAX: stored by its bits
  s.inode = inode;
  s.size = 100 + inode;
  s.mtimeNs = 1'700'000'000'000'000'000 + static_cast<std::int64_t>(inode);
  s.ctimeNs = -1;
  return s;
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

  // One process's worth: a fresh engine that loads the store, inventories
  // `path` and writes back. Returns how many files it had to hash.
  std::uint64_t InventoryInFreshProcess(const std::string& path, std::string* hash = nullptr) {
    host::engine::Engine engine;
    HashCacheStore store;
    EXPECT_EQ(store.Open(Db()), 0);
    EXPECT_EQ(store.LoadInto(engine.Hashes()), 0);
    zel::RefPtr<zel::IIO> io;
    EXPECT_EQ(host::FileStream::Open(path, io), 0);
    tov::ApplicationInfo info;
    app_ctrl::IEnterpriseApplicationController* controller = &engine;
    EXPECT_EQ(controller->InventoryModule(io.Get(), 0, info), 0);
    EXPECT_EQ(store.Save(engine.Hashes()), 0);
    if (hash != nullptr) *hash = std::string(zel::Utf16ToUtf8(info.fileHash.view()).view());
    return engine.HashesComputed();
  }

  engine_test::ScratchDir dir;
};

TEST_F(HashCacheStoreTest, ASecondProcessFindsAnUnchangedFileAndMissesEveryChange) {
  struct Case {
    const char* name;
    void (*change)(const std::string& path);
    std::uint64_t hashed;  // by the process after the change
    bool sameContent;
  };
  const Case cases[] = {
      {"unchanged", [](const std::string&) {}, 0, true},
      {"same size, mtime put back",
       [](const std::string& path) {
         struct stat st {};
         ASSERT_EQ(::stat(path.c_str(), &st), 0);
         std::FILE* f = std::fopen(path.c_str(), "r+");
         ASSERT_NE(f, nullptr);
         std::fputs("EVIL", f);
         std::fclose(f);
         const struct timespec times[2] = {st.st_atim, st.st_mtim};
         ASSERT_EQ(::utimensat(AT_FDCWD, path.c_str(), times, 0), 0);
       },
       1, false},
      {"replaced by rename, times copied",
       [](const std::string& path) {
         struct stat st {};
         ASSERT_EQ(::stat(path.c_str(), &st), 0);
         const std::string other = path + ".new";
         std::filesystem::copy_file(path, other);
         const struct timespec times[2] = {st.st_atim, st.st_mtim};
         ASSERT_EQ(::utimensat(AT_FDCWD, other.c_str(), times, 0), 0);
         std::filesystem::rename(other, path);
       },
       1, true},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const std::string path = dir.Write(std::string("bin/") + c.name, "#!/bin/sh\necho the same size\n");
    std::this_thread::sleep_for(std::chrono::milliseconds(80));  // out of the racy window
    std::string before, after;
    ASSERT_EQ(InventoryInFreshProcess(path, &before), 1u);
    c.change(path);
    std::this_thread::sleep_for(std::chrono::milliseconds(80));
    EXPECT_EQ(InventoryInFreshProcess(path, &after), c.hashed);
    EXPECT_EQ(after == before, c.sameContent) << "the hash is the content's";
  }
}

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
  HashCache first(8);
  first.Insert(Stamp(1), Hex(1));
  ASSERT_EQ(roomy.Save(first), 0);
  HashCache second(8);
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
  ASSERT_EQ(store.Open(Db()), 0);
  HashCache loaded(4);
  ASSERT_EQ(store.LoadInto(loaded), 0);
  EXPECT_FALSE(loaded.Find(Stamp(1)).has_value()) << "a hash of the wrong length";
  EXPECT_EQ(loaded.Find(Stamp(2)), Hex(2));
  store.Close();

  HashCacheStore::Options readOnly;
  readOnly.readOnly = true;
  ASSERT_EQ(store.Open(Db(), readOnly), 0);
  ASSERT_EQ(store.LoadInto(loaded), 0);
  loaded.Insert(Stamp(3), Hex(3));
  EXPECT_EQ(store.Save(loaded), zel::result::AccessDenied);
  EXPECT_EQ(store.Rows(), 2);
}

// A writer rewrites every row with the hash of its round, in one write each
// round, until it is killed: the rows must all be of one round.
TEST_F(HashCacheStoreTest, AWriterKilledDuringAWriteLeavesTheOldRowsOrTheNew) {
  constexpr unsigned kRows = 3000;
  std::mt19937 random(std::random_device{}());
  std::set<std::string> seen;
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
    seen.insert(hashes.begin(), hashes.end());
  }
  RecordProperty("rounds seen", static_cast<int>(seen.size()));
}

}  // namespace
