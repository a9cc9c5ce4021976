// The host's settings store: revisions, persistence across reopen, lost-update
// safety under two concurrent writers, and a store that is not open.
#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <string>
#include <thread>

#include "host/services/service_manager.h"
#include "host/serialization/serialization_fixture.h"
#include "support/temp_tree.h"

namespace {

using app_core::facade::IServiceManager;
using app_core::facade::kSettingsRevisionChanged;
using app_core::facade::SettingsHolder;

struct Counter {
  static constexpr std::uint32_t SerId = 0x5E771A6Eu;
  std::uint64_t value = 0;
};
struct Other {
  static constexpr std::uint32_t SerId = 0x07AE2001u;
  std::uint32_t a = 0;
};

zel::result_t Read(IServiceManager& sm, std::uint32_t key, Counter& c, std::uint32_t& revision) {
  SettingsHolder h{&c, Counter::SerId, nullptr};
  return sm.GetServiceSettings2(key, &h, &revision);
}

zel::result_t Write(IServiceManager& sm, std::uint32_t key, std::uint64_t value, std::uint32_t revision) {
  Counter c{value};
  SettingsHolder h{&c, Counter::SerId, nullptr};
  return sm.UpdateServiceSettings2(key, 1, &h, revision);
}

host::ServiceManager& Opened(host::ServiceManager& sm, const std::string& path) {
  EXPECT_EQ(sm.Open(path), 0);
  sm.RegisterTrivialCodec<Counter>(Counter::SerId);
  sm.RegisterTrivialCodec<Other>(Other::SerId);
  return sm;
}

TEST(ServiceManager, RevisionsGuardEveryWrite) {
  host::ServiceManager sm;
  Opened(sm, ":memory:");
  Counter c{42};
  std::uint32_t rev = 99;
  EXPECT_EQ(Read(sm, 1, c, rev), zel::result::False);  // nothing stored: defaults kept
  EXPECT_EQ(c.value, 42u);
  EXPECT_EQ(rev, 0u);
  EXPECT_EQ(sm.HasServiceSettings(1), zel::result::False);

  EXPECT_EQ(Write(sm, 1, 5, 7), kSettingsRevisionChanged);  // first write must give 0
  EXPECT_EQ(Write(sm, 1, 5, 0), 0);
  EXPECT_EQ(Write(sm, 1, 6, 0), kSettingsRevisionChanged);  // somebody else created it
  ASSERT_EQ(Read(sm, 1, c, rev), 0);
  EXPECT_EQ(c.value, 5u);
  EXPECT_EQ(Write(sm, 1, 6, rev), 0);
  EXPECT_EQ(Write(sm, 1, 7, rev), kSettingsRevisionChanged);  // stale now
  std::uint32_t rev2 = 0;
  ASSERT_EQ(Read(sm, 1, c, rev2), 0);
  EXPECT_EQ(c.value, 6u);
  EXPECT_NE(rev2, rev);

  // Keys are independent; the unconditional write moves the revision too.
  EXPECT_EQ(Write(sm, 2, 1, 0), 0);
  Counter d{100};
  SettingsHolder h{&d, Counter::SerId, nullptr};
  EXPECT_EQ(sm.SetServiceSettings(1, 1, &h), 0);
  EXPECT_EQ(Write(sm, 1, 8, rev2), kSettingsRevisionChanged);

  EXPECT_EQ(sm.RemoveServiceSettings(1), 0);
  EXPECT_EQ(sm.RemoveServiceSettings(1), zel::result::False);
  EXPECT_EQ(Write(sm, 1, 9, rev2), kSettingsRevisionChanged);  // removed meanwhile
}

TEST(ServiceManager, RecordsOfTheWrongOrUnknownTypeAreRefused) {
  host::ServiceManager sm;
  Opened(sm, ":memory:");
  ASSERT_EQ(Write(sm, 1, 5, 0), 0);
  Other o{};
  SettingsHolder wrong{&o, Other::SerId, nullptr};
  std::uint32_t rev = 0;
  EXPECT_EQ(sm.GetServiceSettings2(1, &wrong, &rev), zel::result::WrongSettingsType);
  int unknown = 0;
  SettingsHolder noCodec{&unknown, 0x1234, nullptr};
  EXPECT_EQ(sm.UpdateServiceSettings2(3, 1, &noCodec, 0), zel::result::MetaInformationNotFound);
  EXPECT_EQ(sm.GetServiceSettings2(1, nullptr, &rev), zel::result::InvalidArgument);
}

// Each of two threads reads, increments and writes back key 7 `perThread`
// times through its own store (or both through one), retrying when the
// revision moved on; gives the conflicts met.
int IncrementFromTwoThreads(host::ServiceManager& first, host::ServiceManager& second, int perThread) {
  std::atomic<int> conflicts{0};
  auto work = [&](host::ServiceManager& sm) {
    for (int i = 0; i < perThread; ++i) {
      for (;;) {
        Counter c;
        std::uint32_t rev = 0;
        if (Read(sm, 7, c, rev) < 0) return ADD_FAILURE() << "read failed";
        const zel::result_t r = Write(sm, 7, c.value + 1, rev);
        if (r == 0) break;
        if (r != kSettingsRevisionChanged) return ADD_FAILURE() << "write failed: " << r;
        ++conflicts;
      }
    }
  };
  std::thread a(work, std::ref(first)), b(work, std::ref(second));
  a.join();
  b.join();
  return conflicts.load();
}

// Every increment must survive, also with two connections on one file, as
// two host processes would have: the revision test and the write must then
// be one transaction in the database. Nothing is flushed per update, so the
// test measures the store's guard, not the disk's fsync rate.
TEST(ServiceManager, TwoWritersLoseNoUpdate) {
  struct Case {
    const char* what;
    bool twoConnections;
    int perThread;
  };
  for (const Case& k : {Case{"one connection", false, 10000}, Case{"two connections on one file", true, 1000}}) {
    SCOPED_TRACE(k.what);
    testsupport::TempDir dir;  // the database's -wal and -shm go with it
    const std::string db = dir / "settings.db";
    host::ServiceManager first, second;
    Opened(first, db);
    if (k.twoConnections) Opened(second, db);
    const int conflicts = IncrementFromTwoThreads(first, k.twoConnections ? second : first, k.perThread);
    Counter c;
    std::uint32_t rev = 0;
    ASSERT_EQ(Read(first, 7, c, rev), 0);
    EXPECT_EQ(c.value, 2u * static_cast<std::uint64_t>(k.perThread));
    // One store sees every attempt: each success and each refused write.
    if (!k.twoConnections) {
      EXPECT_EQ(first.Writes(), 2u * k.perThread + static_cast<std::uint64_t>(conflicts));
    }
  }
}

// Every entry point of a store that is not open answers NotInitialized
// instead of touching a connection or statement that isn't there.
TEST(ServiceManager, UnopenedStoreAndBadPathFail) {
  for (const bool failedOpen : {false, true}) {
    SCOPED_TRACE(failedOpen ? "after a failed open" : "never opened");
    host::ServiceManager sm;
    if (failedOpen) {
      EXPECT_LT(sm.Open("/nonexistent-dir-for-service-manager/x.db"), 0);
    }
    sm.RegisterTrivialCodec<Counter>(Counter::SerId);
    const struct {
      const char* what;
      std::function<zel::result_t(host::ServiceManager&)> run;
    } operations[] = {
        {"flush", [](host::ServiceManager& m) { return m.FlushSettings(); }},
        {"write", [](host::ServiceManager& m) { return Write(m, 1, 1, 0); }},
        {"read",
         [](host::ServiceManager& m) {
           Counter c;
           std::uint32_t rev = 0;
           return Read(m, 1, c, rev);
         }},
        {"set",
         [](host::ServiceManager& m) {
           Counter c;
           SettingsHolder h{&c, Counter::SerId, nullptr};
           return m.SetServiceSettings(1, 1, &h);
         }},
        {"has", [](host::ServiceManager& m) { return m.HasServiceSettings(1); }},
        {"remove", [](host::ServiceManager& m) { return m.RemoveServiceSettings(1); }},
    };
    for (const auto& op : operations) {
      SCOPED_TRACE(op.what);
      EXPECT_EQ(op.run(sm), zel::result::NotInitialized);
    }
  }
}

// What is stored survives a reopen: a record with a codec of its own, and
// one without, through the host's binary serialiser (a string and a vector).
class ServiceManagerSerializer : public sertest::SerializationTest {};

TEST_F(ServiceManagerSerializer, RecordsSurviveAReopen) {
  testsupport::TempDir dir;
  const std::string db = dir / "settings.db";
  sertest::Inner written;
  written.code = -17;
  written.label = zel::string_t("settings label");
  written.ids.push_back(1);
  written.ids.push_back(0xFFFFFFFFFFull);
  std::uint32_t rev = 0;
  {
    host::ServiceManager sm;
    Opened(sm, db);
    sm.UseBinarySerializer(&m_locator);
    ASSERT_EQ(Write(sm, 0x0A65F4BA, 77, 0), 0);
    SettingsHolder h{&written, sertest::Inner::SerId, nullptr};
    ASSERT_EQ(sm.UpdateServiceSettings2(3, 1, &h, 0), 0);
    ASSERT_EQ(sm.FlushSettings(), 0);
    Counter c;
    ASSERT_EQ(Read(sm, 0x0A65F4BA, c, rev), 0);
  }
  host::ServiceManager sm;
  Opened(sm, db);
  Counter c;
  std::uint32_t rev2 = 0;
  ASSERT_EQ(Read(sm, 0x0A65F4BA, c, rev2), 0);
  EXPECT_EQ(c.value, 77u);
  EXPECT_EQ(rev2, rev);  // a writer that read before the restart still writes
  EXPECT_EQ(Write(sm, 0x0A65F4BA, 78, rev), 0);

  sertest::Inner read;
  SettingsHolder h{&read, sertest::Inner::SerId, nullptr};
  EXPECT_EQ(sm.GetServiceSettings2(3, &h, &rev), zel::result::MetaInformationNotFound);  // no serialiser yet
  sm.UseBinarySerializer(&m_locator);
  ASSERT_EQ(sm.GetServiceSettings2(3, &h, &rev), 0);
  EXPECT_TRUE(read == written);
  EXPECT_EQ(rev, 1u);
}

}  // namespace
