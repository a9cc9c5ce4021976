// The engine's hash cache: what counts as the same file, its bound and
// least-recently-used order, and lookups from many threads at once.
#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include "host/engine/hash_cache.h"

namespace {

using host::engine::FileStamp;
using host::engine::HashCache;

FileStamp Stamp(std::uint64_t inode) {
  FileStamp s;
  s.device = 2049;
  s.inode = inode;
  s.size = 4096;
  s.mtimeNs = 1'700'000'000'000'000'000;
  s.ctimeNs = 1'700'000'000'500'000'000;
  return s;
}

TEST(HashCache, EveryStampFieldTellsFilesApart) {
  HashCache cache(16);
  const FileStamp base = Stamp(10);
  cache.Insert(base, "aa");
  ASSERT_EQ(cache.Find(base), "aa");

  struct Case {
    const char* what;
    void (*change)(FileStamp&);
  };
  const Case cases[] = {
      {"device", [](FileStamp& s) { s.device += 1; }},
      {"inode", [](FileStamp& s) { s.inode += 1; }},
      {"size", [](FileStamp& s) { s.size += 1; }},
      {"mtime", [](FileStamp& s) { s.mtimeNs += 1; }},
      {"ctime", [](FileStamp& s) { s.ctimeNs += 1; }},
  };
  for (const Case& c : cases) {
    FileStamp changed = base;
    c.change(changed);
    EXPECT_FALSE(cache.Find(changed).has_value()) << c.what;
  }
  const host::engine::HashCacheStats stats = cache.Stats();
  EXPECT_EQ(stats.hits, 1u);
  EXPECT_EQ(stats.misses, 5u);
  EXPECT_EQ(stats.entries, 1u);
}

TEST(HashCache, FromStatTakesNanoseconds) {
  struct stat st {};
  st.st_dev = 7;
  st.st_ino = 8;
  st.st_size = 9;
  st.st_mtim = {100, 5};
  st.st_ctim = {200, 6};
  const FileStamp s = FileStamp::FromStat(st);
  EXPECT_EQ(s.device, 7u);
  EXPECT_EQ(s.inode, 8u);
  EXPECT_EQ(s.size, 9u);
  EXPECT_EQ(s.mtimeNs, 100'000'000'005);
  EXPECT_EQ(s.ctimeNs, 200'000'000'006);
}

TEST(HashCache, BoundedWithLeastRecentlyUsedEviction) {
  HashCache cache(3);
  cache.Insert(Stamp(1), "1");
  cache.Insert(Stamp(2), "2");
  cache.Insert(Stamp(3), "3");
  ASSERT_TRUE(cache.Find(Stamp(1)).has_value());  // 1 is now the most recent; 2 the oldest
  cache.Insert(Stamp(4), "4");
  EXPECT_FALSE(cache.Find(Stamp(2)).has_value());
  EXPECT_EQ(cache.Find(Stamp(1)), "1");
  EXPECT_EQ(cache.Find(Stamp(3)), "3");
  EXPECT_EQ(cache.Find(Stamp(4)), "4");

  cache.Insert(Stamp(3), "3b");  // a replacement takes no room
  EXPECT_EQ(cache.Find(Stamp(3)), "3b");
  EXPECT_EQ(cache.Stats().entries, 3u);
  EXPECT_EQ(cache.Stats().evictions, 1u);

  for (std::uint64_t i = 100; i < 200; ++i) cache.Insert(Stamp(i), std::to_string(i));
  EXPECT_EQ(cache.Stats().entries, 3u);
  EXPECT_EQ(cache.Find(Stamp(199)), "199");
  EXPECT_FALSE(cache.Find(Stamp(196)).has_value());

  cache.Clear();
  EXPECT_EQ(cache.Stats().entries, 0u);
  EXPECT_FALSE(cache.Find(Stamp(199)).has_value());

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
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&, t] {
      for (std::uint64_t i = 0; i < 20000; ++i) {
        const std::uint64_t key = (i * 7 + static_cast<std::uint64_t>(t) * 13) % kKeys;
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

}  // namespace
