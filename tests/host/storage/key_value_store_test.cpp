// The host's SQLite key-value store: staging until Commit, what another
// connection sees, failure codes by cause.
#include "host/storage/key_value_store.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <string>
#include <string_view>
#include <vector>

#include "host/storage/sqlite_db.h"
#include "support/temp_tree.h"

namespace {

using Store = app_core::component::IKeyValueStorage;

Store::KeyRange Key(std::string_view k) { return {k.data(), k.data() + k.size()}; }
Store::ValueRange Val(std::string_view v) {
  const auto* p = reinterpret_cast<const unsigned char*>(v.data());
  return {p, p + v.size()};
}
std::string Text(const Store::Value& v) { return std::string(v.data(), v.data() + v.size()); }

class KeyValueStoreTest : public ::testing::Test {
 protected:
  // The value as a fresh connection reads it, or "<code>" on failure.
  std::string Committed(std::string_view key) {
    host::KeyValueStore other;
    if (other.Open(path) != 0) return "<open failed>";
    Store::Value v;
    const zel::result_t r = other.GetValue(Key(key), v);
    return r == 0 ? Text(v) : "<" + std::to_string(r) + ">";
  }

  testsupport::TempDir dir;
  const std::string path = dir / "state.db";
};

const std::string kNotFound = "<" + std::to_string(zel::result::NotFound) + ">";

TEST_F(KeyValueStoreTest, FailureCodesByCause) {
  // Not a database at all.
  {
    std::ofstream(path) << std::string(4096, 'x');
    host::KeyValueStore store;
    EXPECT_EQ(store.Open(path), zel::result::BasesCorrupted);
    Store::Value v;
    EXPECT_EQ(store.GetValue(Key("k"), v), zel::result::NotInitialized);
    EXPECT_EQ(store.SetValue(Key("k"), Val("v")), zel::result::NotInitialized);
    EXPECT_EQ(store.RemoveValue(Key("k")), zel::result::NotInitialized);
    EXPECT_EQ(store.Commit(), zel::result::NotInitialized);
    std::filesystem::remove(path);
  }
  // Read-only: reads work, writes are refused by name.
  {
    host::KeyValueStore writer;
    ASSERT_EQ(writer.Open(path), 0);
    ASSERT_EQ(writer.SetValue(Key("k"), Val("v")), 0);
    ASSERT_EQ(writer.Commit(), 0);
    host::KeyValueStore store;
    host::KeyValueStore::Options options;
    options.readOnly = true;
    ASSERT_EQ(store.Open(path, options), 0);
    Store::Value v;
    EXPECT_EQ(store.GetValue(Key("k"), v), 0);
    EXPECT_EQ(store.SetValue(Key("k"), Val("w")), zel::result::AccessDenied) << "refused at once, not at Commit";
    EXPECT_EQ(store.RemoveValue(Key("k")), zel::result::AccessDenied);
    EXPECT_EQ(store.StagedCount(), 0u);
    static_cast<void>(store.Commit());
    EXPECT_EQ(Committed("k"), "v");
  }
}

TEST_F(KeyValueStoreTest, StagedChangesToOneKeyEndInTheLastOne) {
  // Each case: a committed value (or none), then staged operations on the
  // same key; what GetValue says before Commit and what the file holds after.
  struct Case {
    const char* name;
    const char* committed;  // nullptr: the key is not in the file
    std::vector<std::string> ops;  // "=x" sets x, "-" removes
    std::vector<zel::result_t> results;
    std::string staged;  // GetValue before Commit: the value or the code
    std::string after;   // the file after Commit
  };
  const std::string notFound = kNotFound;
  const std::vector<Case> cases = {
      {"set then remove, never stored", nullptr, {"=a", "-"}, {0, 0}, notFound, notFound},
      {"set then remove, stored before", "old", {"=a", "-"}, {0, 0}, notFound, notFound},
      {"remove then set", "old", {"-", "=b"}, {0, 0}, "b", "b"},
      {"set, remove, set", "old", {"=a", "-", "=c"}, {0, 0, 0}, "c", "c"},
      {"set, set", nullptr, {"=a", "=b"}, {0, 0}, "b", "b"},
      {"remove twice", "old", {"-", "-"}, {0, zel::result::False}, notFound, notFound},
      {"set, remove, remove", nullptr, {"=a", "-", "-"}, {0, 0, zel::result::False}, notFound, notFound},
      {"an empty value is a value", "old", {"="}, {0}, "", ""},
      {"remove, never stored", nullptr, {"-"}, {zel::result::False}, notFound, notFound},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    std::filesystem::remove(path);
    host::KeyValueStore store;
    ASSERT_EQ(store.Open(path), 0);
    if (c.committed != nullptr) {
      ASSERT_EQ(store.SetValue(Key("k"), Val(c.committed)), 0);
      ASSERT_EQ(store.Commit(), 0);
    }
    for (std::size_t i = 0; i < c.ops.size(); ++i) {
      const std::string& op = c.ops[i];
      const zel::result_t r = op[0] == '=' ? store.SetValue(Key("k"), Val(std::string_view(op).substr(1)))
                                           : store.RemoveValue(Key("k"));
      EXPECT_EQ(r, c.results[i]) << "op " << i;
    }
    Store::Value v;
    v.push_back('x');  // a failed read leaves it alone
    const zel::result_t got = store.GetValue(Key("k"), v);
    EXPECT_EQ(got == 0 ? Text(v) : "<" + std::to_string(got) + ">" + Text(v), got == 0 ? c.staged : c.staged + "x");
    EXPECT_EQ(Committed("k"), c.committed != nullptr ? std::string(c.committed) : notFound) << "not before Commit";
    ASSERT_EQ(store.Commit(), 0);
    EXPECT_EQ(Committed("k"), c.after);
    EXPECT_EQ(store.StagedCount(), 0u);
  }
}

TEST_F(KeyValueStoreTest, RowsReachTheTableInKeyByteOrder) {
  // Staged in no order; keys that differ only past their eighth byte, that
  // are prefixes of others, that hold NUL or bytes above 0x7F.
  const std::vector<std::string> keys = {
      "18446744073709551615", "9", "12345678901234567890", "12345678", "1234567", "12345678901234567891",
      std::string("a\0b", 3), "a", std::string("a\0", 2), "\xFF", "\x80x", "\x7F", "abcdefgh\xFF", "abcdefgh\x01",
      "1844674407370955161",
  };
  host::KeyValueStore store;
  ASSERT_EQ(store.Open(path), 0);
  for (const std::string& key : keys) ASSERT_EQ(store.SetValue(Key(key), Val(key)), 0);
  ASSERT_EQ(store.Commit(), 0);
  store.Close();
  // Keys and values are bytes: nothing is cut at a NUL, no key read as another.
  for (const std::string& key : keys) EXPECT_EQ(Committed(key), key);

  // A rowid table numbers the rows as they were inserted.
  host::storage::Database db;
  ASSERT_EQ(db.Open(path), 0);
  host::storage::Statement rows;
  ASSERT_EQ(rows.Prepare(db, "SELECT key FROM main.key_value ORDER BY rowid"), 0);
  std::vector<std::string> inserted;
  zel::result_t r = 0;
  while (rows.Step(&r)) {
    const auto blob = rows.ColumnBlob(0);
    inserted.emplace_back(reinterpret_cast<const char*>(blob.data()), blob.size());
  }
  ASSERT_EQ(r, 0);
  rows.Finalize();
  std::vector<std::string> sorted = keys;
  std::sort(sorted.begin(), sorted.end());  // std::string compares bytes as unsigned, as SQLite does
  EXPECT_EQ(inserted, sorted);
}

// Full: the commit fails, nothing of it lands, the staged data waits.
TEST_F(KeyValueStoreTest, AFailedCommitKeepsTheStagedValuesReadable) {
  host::KeyValueStore store;
  host::KeyValueStore::Options options;
  options.maxPageCount = 8;
  ASSERT_EQ(store.Open(path, options), 0);
  ASSERT_EQ(store.SetValue(Key("gone"), Val("g")), 0);
  ASSERT_EQ(store.Commit(), 0);
  ASSERT_EQ(store.RemoveValue(Key("gone")), 0);
  ASSERT_EQ(store.SetValue(Key("a"), Val("1")), 0);
  ASSERT_EQ(store.SetValue(Key("z"), Val(std::string(1024 * 1024, 'z'))), 0);  // beyond eight pages of any size
  ASSERT_EQ(store.Commit(), zel::result::OutOfSpace);
  EXPECT_EQ(store.StagedCount(), 3u);
  EXPECT_EQ(Committed("gone"), "g") << "the removal was rolled back with the rest";
  EXPECT_EQ(Committed("a"), kNotFound);
  Store::Value v;
  ASSERT_EQ(store.GetValue(Key("a"), v), 0);
  EXPECT_EQ(Text(v), "1");
  EXPECT_EQ(store.GetValue(Key("gone"), v), zel::result::NotFound);
  ASSERT_EQ(store.SetValue(Key("z"), Val("small")), 0);
  ASSERT_EQ(store.Commit(), 0);
  EXPECT_EQ(Committed("gone"), kNotFound);
  EXPECT_EQ(Committed("a"), "1");
  EXPECT_EQ(Committed("z"), "small");
}

TEST_F(KeyValueStoreTest, CommitWaitsForNoWriterOnStagedDataAndAClosedStoreDropsIt) {
  // Staging takes no lock on the file: another connection commits meanwhile.
  host::KeyValueStore b;
  ASSERT_EQ(b.Open(path), 0);
  {
    host::KeyValueStore a;
    ASSERT_EQ(a.Open(path), 0);
    ASSERT_EQ(a.SetValue(Key("a"), Val("1")), 0);
    ASSERT_EQ(b.SetValue(Key("b"), Val("2")), 0);
    ASSERT_EQ(b.Commit(), 0);
    ASSERT_EQ(a.Commit(), 0);
    // Staged and never committed: gone with the store.
    ASSERT_EQ(a.SetValue(Key("lost"), Val("3")), 0);
    ASSERT_EQ(a.RemoveValue(Key("a")), 0);
  }
  EXPECT_EQ(Committed("a"), "1");
  EXPECT_EQ(Committed("b"), "2");
  EXPECT_EQ(Committed("lost"), kNotFound);
}

}  // namespace
