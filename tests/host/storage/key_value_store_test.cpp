// The host's SQLite key-value store: staging until Commit, what another
// connection sees, failure codes by cause, the fault hooks.
#include "host/storage/key_value_store.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <string_view>

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
  void SetUp() override {
    char pattern[] = "/tmp/kvstore_test_XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    dir = pattern;
    path = dir + "/state.db";
  }
  void TearDown() override { std::filesystem::remove_all(dir); }

  // The value as a fresh connection reads it, or "<code>" on failure.
  std::string Committed(std::string_view key) {
    host::KeyValueStore other;
    if (other.Open(path) != 0) return "<open failed>";
    Store::Value v;
    const zel::result_t r = other.GetValue(Key(key), v);
    return r == 0 ? Text(v) : "<" + std::to_string(r) + ">";
  }

  std::string dir;
  std::string path;
};

const std::string kNotFound = "<" + std::to_string(zel::result::NotFound) + ">";

TEST_F(KeyValueStoreTest, WritesAreStagedUntilCommitButVisibleToTheirOwnStore) {
  host::KeyValueStore store;
  ASSERT_EQ(store.Open(path), 0);
  ASSERT_EQ(store.SetValue(Key("a"), Val("one")), 0);
  ASSERT_EQ(store.SetValue(Key("a"), Val("two")), 0);
  Store::Value v;
  ASSERT_EQ(store.GetValue(Key("a"), v), 0);
  EXPECT_EQ(Text(v), "two");
  EXPECT_EQ(Committed("a"), kNotFound) << "nothing reaches the file before Commit";
  EXPECT_EQ(store.StagedCount(), 1u);

  ASSERT_EQ(store.Commit(), 0);
  EXPECT_EQ(Committed("a"), "two");
  EXPECT_EQ(store.StagedCount(), 0u);
  EXPECT_EQ(store.Commits(), 1u);
}

TEST_F(KeyValueStoreTest, RemovalIsStagedAndAnswersFalseForAnAbsentKey) {
  host::KeyValueStore store;
  ASSERT_EQ(store.Open(path), 0);
  EXPECT_EQ(store.RemoveValue(Key("never")), zel::result::False);
  ASSERT_EQ(store.SetValue(Key("k"), Val("v")), 0);
  ASSERT_EQ(store.Commit(), 0);

  EXPECT_EQ(store.RemoveValue(Key("k")), 0);
  EXPECT_EQ(store.RemoveValue(Key("k")), zel::result::False) << "already removed (staged)";
  Store::Value v;
  v.push_back('x');
  EXPECT_EQ(store.GetValue(Key("k"), v), zel::result::NotFound);
  EXPECT_EQ(Text(v), "x") << "a failed read leaves the output alone";
  EXPECT_EQ(Committed("k"), "v");
  ASSERT_EQ(store.Commit(), 0);
  EXPECT_EQ(Committed("k"), kNotFound);

  // Written again after a staged removal: the write wins.
  ASSERT_EQ(store.SetValue(Key("k"), Val("w")), 0);
  EXPECT_EQ(store.RemoveValue(Key("k")), 0);
  ASSERT_EQ(store.SetValue(Key("k"), Val("z")), 0);
  ASSERT_EQ(store.Commit(), 0);
  EXPECT_EQ(Committed("k"), "z");
}

TEST_F(KeyValueStoreTest, KeysAndValuesAreBytes) {
  host::KeyValueStore store;
  ASSERT_EQ(store.Open(path), 0);
  const std::string key("a\0b", 3);
  const std::string value("\0\xff\x01", 3);
  ASSERT_EQ(store.SetValue(Key(key), Val(value)), 0);
  ASSERT_EQ(store.SetValue(Key("empty"), Val("")), 0);
  ASSERT_EQ(store.Commit(), 0);
  EXPECT_EQ(Committed(key), value);
  EXPECT_EQ(Committed("a"), kNotFound) << "no truncation at the zero byte";
  EXPECT_EQ(Committed("empty"), "");
}

TEST_F(KeyValueStoreTest, ReopenDropsWhatWasNeverCommitted) {
  {
    host::KeyValueStore store;
    ASSERT_EQ(store.Open(path), 0);
    ASSERT_EQ(store.SetValue(Key("kept"), Val("1")), 0);
    ASSERT_EQ(store.Commit(), 0);
    ASSERT_EQ(store.SetValue(Key("lost"), Val("2")), 0);
    ASSERT_EQ(store.RemoveValue(Key("kept")), 0);
  }
  host::KeyValueStore store;
  ASSERT_EQ(store.Open(path), 0);
  Store::Value v;
  EXPECT_EQ(store.GetValue(Key("lost"), v), zel::result::NotFound);
  ASSERT_EQ(store.GetValue(Key("kept"), v), 0);
  EXPECT_EQ(Text(v), "1");
}

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
    const zel::result_t set = store.SetValue(Key("k"), Val("w"));
    const zel::result_t commit = store.Commit();
    EXPECT_TRUE(set == zel::result::AccessDenied || commit == zel::result::AccessDenied) << set << " " << commit;
    EXPECT_EQ(Committed("k"), "v");
  }
  // Full: the commit fails, nothing of it lands, the staged data waits.
  {
    host::KeyValueStore store;
    host::KeyValueStore::Options options;
    options.maxPageCount = 8;
    ASSERT_EQ(store.Open(path, options), 0);
    const std::string big(64 * 1024, 'b');
    ASSERT_EQ(store.SetValue(Key("big"), Val(big)), 0);
    ASSERT_EQ(store.SetValue(Key("small"), Val("s")), 0);
    EXPECT_EQ(store.Commit(), zel::result::OutOfSpace);
    EXPECT_EQ(Committed("small"), kNotFound) << "all or nothing";
    EXPECT_EQ(store.StagedCount(), 2u);
    ASSERT_EQ(store.RemoveValue(Key("big")), 0);
    EXPECT_EQ(store.Commit(), 0);
    EXPECT_EQ(Committed("small"), "s");
  }
}

TEST_F(KeyValueStoreTest, FaultHooksFailExactlyTheNthCall) {
  struct Case {
    const char* name;
    bool onCommit;
    std::uint64_t nth;
  };
  for (const Case& c : {Case{"first set", false, 1}, Case{"third set", false, 3}, Case{"first commit", true, 1},
                        Case{"second commit", true, 2}}) {
    SCOPED_TRACE(c.name);
    std::filesystem::remove(path);
    host::KeyValueStore store;
    ASSERT_EQ(store.Open(path), 0);
    constexpr zel::result_t kFault = zel::result::MediaError;
    if (c.onCommit) {
      store.FailCommitAt(c.nth, kFault);
    } else {
      store.FailSetValueAt(c.nth, kFault);
    }
    std::uint64_t sets = 0, commits = 0;
    for (int round = 0; round < 3; ++round) {
      const std::string key = "k" + std::to_string(round);
      const zel::result_t set = store.SetValue(Key(key), Val("v"));
      ++sets;
      EXPECT_EQ(set, !c.onCommit && sets == c.nth ? kFault : 0) << "set " << sets;
      const zel::result_t commit = store.Commit();
      ++commits;
      const bool commitFails = c.onCommit && commits == c.nth;
      EXPECT_EQ(commit, commitFails ? kFault : 0) << "commit " << commits;
    }
    // A failed set stored nothing; a failed commit only delayed its data.
    for (int round = 0; round < 3; ++round) {
      const bool lost = !c.onCommit && static_cast<std::uint64_t>(round + 1) == c.nth;
      EXPECT_EQ(Committed("k" + std::to_string(round)), lost ? kNotFound : "v") << round;
    }
  }
}

TEST_F(KeyValueStoreTest, CommitWaitsForNoWriterOnStagedData) {
  // Staging takes no lock on the file: another connection commits meanwhile.
  host::KeyValueStore a;
  host::KeyValueStore b;
  ASSERT_EQ(a.Open(path), 0);
  ASSERT_EQ(b.Open(path), 0);
  ASSERT_EQ(a.SetValue(Key("a"), Val("1")), 0);
  ASSERT_EQ(b.SetValue(Key("b"), Val("2")), 0);
  ASSERT_EQ(b.Commit(), 0);
  ASSERT_EQ(a.Commit(), 0);
  EXPECT_EQ(Committed("a"), "1");
  EXPECT_EQ(Committed("b"), "2");
}

}  // namespace
