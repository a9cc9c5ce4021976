// The read-modify-write loop against the host's real settings store, with
// the store's fault injection driving conflicts and failures, and the exact
// trace lines it leaves.
#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <vector>

#include "host/services/collecting_tracer.h"
#include "host/services/host_object.h"
#include "host/services/service_locator.h"
#include "host/services/service_manager.h"
#include "tov_utils/update_service_settings_sync.h"

namespace {

using app_core::facade::IServiceManager;
using app_core::facade::SettingsHolder;

struct Counter {
  static constexpr std::uint32_t SerId = 0x5E771A6Eu;
  std::uint32_t value = 0;
  std::uint32_t marks = 0;
};

constexpr std::uint32_t kKey = 0x0A65F4BA;
const std::string kFile = "tov_utils/update_service_settings_sync.h:";
const std::string kEnter = "UpdateServiceSettingsSync() serviceKey=0xa65f4ba, sync=1";

Counter Stored(host::ServiceManager& store) {
  Counter c;
  SettingsHolder holder{&c, Counter::SerId, nullptr};
  std::uint32_t revision = 0;
  EXPECT_GE(store.GetServiceSettings2(kKey, &holder, &revision), 0);
  return c;
}

class UpdateServiceSettingsSyncTest : public ::testing::Test {
 protected:
  void SetUp() override { OpenStore(m_store, m_locator); }

  static void OpenStore(host::ServiceManager& store, host::ServiceLocator& locator) {
    ASSERT_EQ(store.Open(":memory:"), 0);
    store.RegisterTrivialCodec<Counter>(Counter::SerId);
    locator.Register<IServiceManager>(&store);
  }

  zel::result_t Run(auto modifier) {
    return tools::UpdateServiceSettingsSync<Counter>(&m_tracer, &m_locator, kKey, modifier);
  }

  void Seed(std::uint32_t value) {
    Counter c{value, 0};
    SettingsHolder holder{&c, Counter::SerId, nullptr};
    ASSERT_EQ(m_store.SetServiceSettings(kKey, 1, &holder), 0);
  }

  host::CollectingTracer m_tracer;
  host::ServiceManager m_store;
  host::ServiceLocator m_locator;
};

TEST_F(UpdateServiceSettingsSyncTest, UnchangedRecordIsNeitherWrittenNorFlushed) {
  Seed(7);
  int calls = 0;
  EXPECT_EQ(Run([&](Counter& c) {
              ++calls;
              EXPECT_EQ(c.value, 7u);  // the modifier sees what is stored
              return false;
            }),
            1);
  EXPECT_EQ(calls, 1);
  EXPECT_EQ(m_store.Reads(), 1u);
  EXPECT_EQ(m_store.Writes(), 0u);
  EXPECT_EQ(m_store.Flushes(), 0u);
  EXPECT_EQ(m_tracer.Texts(), (std::vector<std::string>{kEnter, "UpdateServiceSettingsSync() <- 0x00000001 (False) "}));
  EXPECT_EQ(m_tracer.OutstandingRefs(), 0);
  EXPECT_EQ(m_store.OutstandingRefs(), 1);  // the locator's own

  // No text is built for unwanted levels.
  m_tracer.Clear();
  m_tracer.SetLevelFilter(700);
  EXPECT_EQ(Run([](Counter&) { return false; }), 1);
  EXPECT_TRUE(m_tracer.Texts().empty());
  EXPECT_EQ(m_tracer.OpenLines(), 0u);
}

TEST_F(UpdateServiceSettingsSyncTest, StaleRevisionsRestartFromAFreshRecord) {
  Seed(10);
  m_store.ForceRevisionConflicts(2);
  int calls = 0;
  EXPECT_EQ(Run([&](Counter& c) {
              ++calls;
              ++c.value;  // from a fresh read each time, so the result is 11, not 13
              return true;
            }),
            0);
  EXPECT_EQ(calls, 3);
  EXPECT_EQ(m_store.Reads(), 3u);
  EXPECT_EQ(m_store.Writes(), 3u);
  EXPECT_EQ(m_store.Flushes(), 1u);
  EXPECT_EQ(Stored(m_store).value, 11u);
  EXPECT_EQ(m_tracer.Texts(),
            (std::vector<std::string>{kEnter, "UpdateServiceSettingsSync() <- 0x00000000 (No error) "}));

  // A modifier's exception passes through with every reference released and nothing written.
  EXPECT_THROW(Run([](Counter&) -> bool { throw std::runtime_error("boom"); }), std::runtime_error);
  EXPECT_EQ(m_tracer.OutstandingRefs(), 0);
  EXPECT_EQ(m_store.OutstandingRefs(), 1);
  EXPECT_EQ(m_store.Writes(), 3u);
}

TEST_F(UpdateServiceSettingsSyncTest, NothingStoredStartsFromDefaultsAndAWriterInBetweenIsKept) {
  EXPECT_EQ(Run([](Counter& c) {
              EXPECT_EQ(c.value, 0u);
              c.value = 5;
              return true;
            }),
            0);
  EXPECT_EQ(Stored(m_store).value, 5u);
  int calls = 0;
  EXPECT_EQ(Run([&](Counter& c) {
              if (++calls == 1) Seed(100);  // another writer, after our read
              c.marks = c.value;
              return true;
            }),
            0);
  EXPECT_EQ(calls, 2);
  EXPECT_EQ(Stored(m_store).marks, 100u);
}

struct FailureCase {
  const char* name;
  void (*inject)(host::ServiceManager&, host::ServiceLocator&);
  zel::result_t expected;
  int modifierCalls;
  std::uint64_t flushes;
  std::uint32_t stored;  // a failed flush leaves the change written
  std::string line;
};

TEST_F(UpdateServiceSettingsSyncTest, FailuresAreLoggedAtTheirSiteAndReturned) {
  const std::vector<FailureCase> cases = {
      {"read", [](host::ServiceManager& s, host::ServiceLocator&) { s.FailNextRead(zel::result::MediaError); },
       zel::result::MediaError, 0, 0, 0,
       kFile + "28(res),(ZEL_SUCCEEDED(_result)) failed: result = 0x80000059 (Media error)UpdateServiceSettings2 failed"},
      {"write", [](host::ServiceManager& s, host::ServiceLocator&) { s.FailNextWrite(zel::result::AccessDenied); },
       zel::result::AccessDenied, 1, 0, 0,
       kFile +
           "28(res),(ZEL_SUCCEEDED(_result)) failed: result = 0x80000045 (Access denied)UpdateServiceSettings2 failed"},
      {"flush", [](host::ServiceManager& s, host::ServiceLocator&) { s.FailNextFlush(zel::result::OutOfSpace); },
       zel::result::OutOfSpace, 1, 1, 9,
       kFile + "32(esm->FlushSettings()),(ZEL_SUCCEEDED(_result)) failed: result = 0x80000062 (Out of space)"
               "FlushSettings failed"},
      {"no store", [](host::ServiceManager&, host::ServiceLocator& l) { l.Remove(IServiceManager::iid); },
       zel::result::InterfaceNotSupported, 0, 0, 0,
       kFile + "24(GetInterface(sl, esm.Ref())),(ZEL_SUCCEEDED(_result)) failed: result = 0x80000001 (Interface not "
               "supported)Cannot get IServiceManager interface"},
  };
  for (const FailureCase& c : cases) {
    SCOPED_TRACE(c.name);
    host::ServiceManager store;
    host::ServiceLocator locator;
    OpenStore(store, locator);
    host::CollectingTracer tracer;
    c.inject(store, locator);
    int calls = 0;
    EXPECT_EQ(tools::UpdateServiceSettingsSync<Counter>(&tracer, &locator, kKey,
                                                        [&](Counter& r) {
                                                          ++calls;
                                                          r.value = 9;
                                                          return true;
                                                        }),
              c.expected);
    EXPECT_EQ(calls, c.modifierCalls);
    EXPECT_EQ(store.Flushes(), c.flushes);
    const auto lines = tracer.Lines();
    ASSERT_EQ(lines.size(), 2u);  // no closing line after a failure
    EXPECT_EQ(lines[0].text, kEnter);
    EXPECT_EQ(lines[1].level, 300u);
    EXPECT_EQ(lines[1].text, c.line);
    EXPECT_EQ(Stored(store).value, c.stored);
  }
}

// The host's store, with a descriptor reference handed out at each read, as
// a store may: the caller owns it and must let go of it.
class StoreWithDescriptors final : public host::OwnedObject<StoreWithDescriptors, IServiceManager> {
 public:
  StoreWithDescriptors(IServiceManager& store, zel::IObject& descriptor) : m_store(store), m_descriptor(descriptor) {}
  zel::result_t GetServiceSettings(std::uint32_t key, SettingsHolder* settings) override {
    return m_store.GetServiceSettings(key, settings);
  }
  zel::result_t SetServiceSettings(std::uint32_t key, std::uint32_t sync, const SettingsHolder* settings) override {
    return m_store.SetServiceSettings(key, sync, settings);
  }
  zel::result_t GetServiceSettingsRevision(std::uint32_t key, std::uint32_t* revision) override {
    return m_store.GetServiceSettingsRevision(key, revision);
  }
  zel::result_t GetServiceSettings2(std::uint32_t key, SettingsHolder* settings, std::uint32_t* revision) override {
    const zel::result_t r = m_store.GetServiceSettings2(key, settings, revision);
    m_descriptor.AddRef();
    settings->descriptor = &m_descriptor;
    return r;
  }
  zel::result_t HasServiceSettings(std::uint32_t key) override { return m_store.HasServiceSettings(key); }
  zel::result_t UpdateServiceSettings2(std::uint32_t key, std::uint32_t sync, const SettingsHolder* settings,
                                       std::uint32_t revision) override {
    return m_store.UpdateServiceSettings2(key, sync, settings, revision);
  }
  zel::result_t RemoveServiceSettings(std::uint32_t key) override { return m_store.RemoveServiceSettings(key); }
  zel::result_t FlushSettings() override { return m_store.FlushSettings(); }

 private:
  IServiceManager& m_store;
  zel::IObject& m_descriptor;
};

TEST_F(UpdateServiceSettingsSyncTest, DescriptorsTheStoreHandsOutAreReleased) {
  host::CollectingTracer descriptor;  // any counted object stands in for one
  StoreWithDescriptors store(m_store, static_cast<zel::ITracer&>(descriptor));
  host::ServiceLocator locator;
  locator.Register<IServiceManager>(&store);
  Seed(1);
  m_store.ForceRevisionConflicts(1);  // two reads: one retry
  EXPECT_EQ(tools::UpdateServiceSettingsSync<Counter>(&m_tracer, &locator, kKey,
                                                      [](Counter& c) { return ++c.value, true; }),
            0);
  EXPECT_EQ(m_store.Reads(), 2u);
  EXPECT_EQ(descriptor.OutstandingRefs(), 0);
  EXPECT_EQ(Stored(m_store).value, 2u);
}

}  // namespace
