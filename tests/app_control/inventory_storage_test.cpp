// InventoryStorage over the real SQLite key-value store and the real
// serialisers: the two lives of the inventory, paging, category names,
// failures of the store and of its contents, a reader beside a writer, and a
// writer killed at a random moment.
#include "app_control/inventory_storage.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sqlite3.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <random>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "app_control/module_entry.h"
#include "support/inventory_host.h"
#include "support/temp_tree.h"
#include "tov_common/categories/category_text.h"
#include "zel/module_lock.h"
#include "zel/system/datetime.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testsupport::App;
using testsupport::W;
using tov::app_control::IInventoryStorage;
using Store = app_core::component::IKeyValueStorage;

Store::KeyRange Key(std::string_view k) { return {k.data(), k.data() + k.size()}; }
Store::ValueRange Val(std::string_view v) {
  const auto* p = reinterpret_cast<const unsigned char*>(v.data());
  return {p, p + v.size()};
}

// Both faces of one storage object.
struct Inventory {
  zel::RefPtr<IInventoryStorage> writer;
  zel::RefPtr<tov::IInventoryInfoProvider> reader;
  explicit operator bool() const { return writer && reader; }
};

Inventory MakeInventory(zel::IServiceLocator* locator) {
  Inventory inv;
  zel::RefPtr<zel::IObjectFactory> factory;
  if (tov::app_control::GetObjectFactory(locator, tov::app_control::kInventoryStorageClassId, factory.Ref()) == 0 &&
      factory->CreateInstance(locator, IInventoryStorage::iid, reinterpret_cast<void**>(inv.writer.Ref())) == 0)
    inv.writer->QueryInterface(tov::IInventoryInfoProvider::iid, reinterpret_cast<void**>(inv.reader.Ref()));
  return inv;
}

std::vector<tov::ApplicationId> Ids(const tov::ApplicationList& list) {
  std::vector<tov::ApplicationId> ids;
  for (const auto& info : list.list) ids.push_back(info.id);
  return ids;
}
std::vector<tov::ApplicationId> Ids(const tov::ApplicationIdList& list) { return {list.begin(), list.end()}; }

std::vector<std::u16string> Names(const tov::ApplicationInfo& info) {
  std::vector<std::u16string> names;
  for (const auto& n : info.categoryNames) names.emplace_back(n.view());
  return names;
}

class InventoryStorageTest : public ::testing::Test {
 protected:
  void SetUp() override {
    lockCountBefore = zel::ModuleLockCount.load();
    ASSERT_EQ(host.OpenStore(path), 0);
  }
  void TearDown() override {
    EXPECT_EQ(zel::ModuleLockCount.load(), lockCountBefore) << "a storage object outlived its test";
    EXPECT_EQ(host.allocator.LiveBlocks(), 0);
  }

  // A new storage object on the host; the test fails when none can be made.
  Inventory Open() {
    Inventory inv = MakeInventory(&host.locator);
    if (!inv) throw std::runtime_error("no inventory storage");
    return inv;
  }

  // What a second connection finds committed under `key`; "-" when absent.
  std::string Committed(std::string_view key) {
    host::KeyValueStore other;
    if (other.Open(path) != 0) return "<open failed>";
    Store::Value v;
    if (other.GetValue(Key(key), v) != 0) return "-";
    return std::string(v.data(), v.data() + v.size());
  }

  testsupport::TempDir dir;
  testsupport::InventoryHost host;
  const std::string path = dir / "state.db";
  std::uint32_t lockCountBefore = 0;
};

TEST_F(InventoryStorageTest, RecordsAreWrittenAtAddInfoListAndTimestampOnlyAtFlush) {
  const std::uint64_t before = zel::datetime::now();
  {
    Inventory inv = Open();
    ASSERT_EQ(inv.writer->AddInfo(App(7, u"old")), 0);
    ASSERT_EQ(inv.writer->AddInfo(App(3, u"cat")), 0);
    ASSERT_EQ(inv.writer->AddInfo(App(7, u"ls")), 0);  // replaces the first; the id stands once

    // Memory runs ahead: readers see both at once.
    tov::ApplicationIdList ids;
    ASSERT_EQ(inv.reader->GetApplicationIdList(0, 10, ids), 0);
    EXPECT_THAT(Ids(ids), ElementsAre(7u, 3u));
    tov::ApplicationInfo info;
    ASSERT_EQ(inv.reader->GetApplicationInfo(3, info), 0);
    EXPECT_EQ(info.fileName, u"cat");
    EXPECT_EQ(info.ownerGid, -1) << "engine default kept through the store";
    EXPECT_EQ(info.fileSize, 4099u);
    for (const char* key : {"7", "appIdList", "timestamp"}) EXPECT_EQ(Committed(key), "-") << key;

    ASSERT_EQ(inv.writer->Flush(), 0);
    for (const char* key : {"7", "appIdList"}) EXPECT_NE(Committed(key), "-") << key;
    EXPECT_EQ(Committed("timestamp").size(), 8u);
  }
  const std::uint64_t after = zel::datetime::now();

  // A new object reads back the list and the time of the last AddInfo.
  Inventory inv = Open();
  tov::ApplicationList list;
  ASSERT_EQ(inv.reader->GetApplicationList(list), 0);
  EXPECT_THAT(Ids(list), ElementsAre(7u, 3u));
  EXPECT_GE(list.timestamp, before);
  EXPECT_LE(list.timestamp, after);
  EXPECT_EQ(list.list[0].filePath, u"/usr/bin/ls");
  // Added to again, a stored id still stands once.
  ASSERT_EQ(inv.writer->AddInfo(App(3, u"again")), 0);
  tov::ApplicationIdList ids;
  ASSERT_EQ(inv.reader->GetApplicationIdList(0, 10, ids), 0);
  EXPECT_THAT(Ids(ids), ElementsAre(7u, 3u));
  EXPECT_TRUE(host.Failures().empty()) << host.Failures().front();
}

TEST_F(InventoryStorageTest, PagingThroughTheIds) {
  Inventory inv = Open();
  for (tov::ApplicationId id : {10u, 11u, 12u, 13u, 14u}) ASSERT_EQ(inv.writer->AddInfo(App(id, u"p")), 0);

  struct Case {
    std::uint64_t from, count;
    zel::result_t result;
    std::vector<tov::ApplicationId> appended;
  };
  const Case cases[] = {
      {0, 2, 0, {10, 11}},
      {3, 2, 0, {13, 14}},          // exactly to the end
      {4, 100, 0, {14}},            // clipped at the end
      {2, 0, 0, {}},                // nothing asked, still inside
      {5, 1, 1, {}},                // at the end
      {UINT64_MAX, UINT64_MAX, 1, {}},
      {1, UINT64_MAX, 0, {11, 12, 13, 14}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::Message() << "from " << c.from << " count " << c.count);
    tov::ApplicationIdList list;
    list.push_back(99);  // what the reader held stays in front
    EXPECT_EQ(inv.reader->GetApplicationIdList(c.from, c.count, list), c.result);
    std::vector<tov::ApplicationId> expected{99};
    expected.insert(expected.end(), c.appended.begin(), c.appended.end());
    EXPECT_EQ(Ids(list), expected);
  }
}

TEST_F(InventoryStorageTest, CategoryNamesFromTheControllerSettings) {
  const app_ctrl::CategoryId browsers{{0x12, 0x34, 0x56, 0x78, 0x9A, 0xBC, 0xDE, 0xF0, 1, 2, 3, 4, 5, 6, 7, 8}};
  const std::u16string browsersText(tov::tools::CategoryIdToText(browsers).view());
  const std::u16string golden(tov::tools::GoldenImageCategoryIdText().view());
  auto category = [](app_ctrl::CategoryId id, std::u16string_view name) {
    app_ctrl::Category c;
    c.GUID = id;
    c.Name = W(name);
    return c;
  };

  struct Case {
    const char* name;
    std::vector<app_ctrl::Category> categories;
    bool stored;
    zel::result_t readFault;
    bool noServiceManager;
    std::vector<std::u16string> expected;
    const char* failureLine;
  };
  const std::u16string upper = u"EAC00500-0000-0000-0000-000000000000";
  const Case cases[] = {
      {"known, golden and unknown",
       {category(browsers, u"Browsers")},
       true, 0, false,
       {u"GoldenImage", u"Browsers", u"not-a-category", upper, u"GoldenImage"},
       nullptr},
      {"the settings may rename GoldenImage; a later category wins",
       {category(app_ctrl::GoldenImageCategoryId, u"Base image"), category(browsers, u"Old"),
        category(browsers, u"New")},
       true, 0, false,
       {u"Base image", u"New", u"not-a-category", upper, u"Base image"},
       nullptr},
      {"nothing stored", {}, false, 0, false,
       {u"GoldenImage", browsersText, u"not-a-category", upper, u"GoldenImage"}, nullptr},
      {"settings unreadable", {}, true, zel::result::MediaError, false, {},
       "(esm->GetServiceSettings2( app_ctrl::CLSID_ENT_APP_CONTROLLER, &settings, revision)),"
       "(ZEL_SUCCEEDED(_result)) failed: result = 0x80000059 (Media error)"},
      {"no service manager", {}, true, 0, true, {},
       "(zel::GetInterface(sl, esm.Ref())),(ZEL_SUCCEEDED(_result)) failed: result = "},
  };

  Inventory inv = Open();
  tov::ApplicationInfo info = App(1, u"firefox", {golden, browsersText, u"not-a-category", upper});
  info.categoryKeys.push_back(tov::CategoryKey{7, W(golden)});  // kind plays no part
  ASSERT_EQ(inv.writer->AddInfo(info), 0);

  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    host.tracer.Clear();
    host.serviceManager.controller.reset();
    if (c.stored) {
      app_ctrl::ControllerServiceSettings settings;
      for (const auto& cat : c.categories) settings.categories.push_back(cat);
      host.serviceManager.controller = settings;
    }
    host.serviceManager.failRead = c.readFault;
    if (c.noServiceManager) host.locator.Remove(app_core::facade::IServiceManager::iid);

    tov::ApplicationList list;
    ASSERT_EQ(inv.reader->GetApplicationList(list), 0);
    ASSERT_EQ(list.list.size(), 1u);
    EXPECT_EQ(Names(list.list[0]), c.expected);
    const auto failures = host.Failures();
    if (c.failureLine == nullptr) {
      EXPECT_TRUE(failures.empty()) << failures.front();
    } else {
      ASSERT_EQ(failures.size(), 1u);
      EXPECT_THAT(failures[0], HasSubstr(c.failureLine));
      EXPECT_THAT(failures[0], HasSubstr("app_control/inventory_storage.cpp:"));
    }
    if (c.noServiceManager) host.locator.Register<app_core::facade::IServiceManager>(&host.serviceManager);
  }
  // What the store holds never carries names: they are made at each read.
  tov::ApplicationInfo stored;
  ASSERT_EQ(inv.reader->GetApplicationInfo(1, stored), 0);
  EXPECT_TRUE(stored.categoryNames.empty());
}

// Clear empties memory and the committed store at once, also records staged
// by a Flush that failed; an empty inventory lists nothing at time 0.
TEST_F(InventoryStorageTest, EmptyAndClearedInventories) {
  Inventory inv = Open();
  auto expectEmpty = [&] {
    tov::ApplicationList list;
    list.timestamp = 123;
    list.list.push_back(App(1, u"stale"));
    ASSERT_EQ(inv.reader->GetApplicationList(list), 0);
    EXPECT_EQ(list.timestamp, 0u);
    EXPECT_TRUE(list.list.empty());
  };
  expectEmpty();

  ASSERT_EQ(inv.writer->AddInfo(App(1, u"a")), 0);
  ASSERT_EQ(inv.writer->Flush(), 0);
  ASSERT_EQ(inv.writer->AddInfo(App(2, u"b")), 0);
  host.store.FailCommitAt(1, zel::result::OutOfSpace);
  EXPECT_EQ(inv.writer->Flush(), zel::result::OutOfSpace);
  EXPECT_EQ(Committed("2"), "-");

  EXPECT_EQ(inv.writer->Clear(), 0);
  EXPECT_EQ(host.store.StagedCount(), 0u) << "records, list and timestamp all removed";
  expectEmpty();
  tov::ApplicationIdList ids;
  EXPECT_EQ(inv.reader->GetApplicationIdList(0, 1, ids), zel::result::False);
  for (const char* key : {"1", "2", "appIdList", "timestamp"}) EXPECT_EQ(Committed(key), "-") << key;
  // Its last flush stores the empty inventory.
  inv = Open();
  expectEmpty();
}

TEST_F(InventoryStorageTest, StoreFailuresOnWriteAreReportedByTheirLines) {
  Inventory inv = Open();
  struct Case {
    const char* name;
    std::uint64_t failingSet;  // counted from the start of the step
    bool add;
    const char* expression;
    const char* message;
  };
  const Case cases[] = {
      {"record", 1, true, "(SaveValue(MakeNodeName(info.id), info))", "Cannot save value to storage"},
      {"timestamp", 1, false, "(SaveValue(Timestamp, static_cast<uint64_t>(m_timestamp)))", ""},
      {"id list", 2, false, "(SaveValue(AppIdList, m_ids))", ""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    host.tracer.Clear();
    host.store.FailSetValueAt(c.failingSet, zel::result::MediaError);
    const zel::result_t r = c.add ? inv.writer->AddInfo(App(9, u"n")) : inv.writer->Flush();
    EXPECT_EQ(r, zel::result::MediaError);
    const auto failures = host.Failures();
    ASSERT_EQ(failures.size(), 1u);
    EXPECT_THAT(failures[0], HasSubstr(std::string(c.expression) + ",(ZEL_SUCCEEDED(_result)) failed: result = 0x"));
    EXPECT_TRUE(failures[0].ends_with(")" + std::string(c.message))) << failures[0];
  }
  // The id of the failed AddInfo stays listed.
  tov::ApplicationIdList ids;
  ASSERT_EQ(inv.reader->GetApplicationIdList(0, 10, ids), 0);
  EXPECT_THAT(Ids(ids), ElementsAre(9u));
}

TEST_F(InventoryStorageTest, UnreadableStoredDataGivesWhatCanBeRead) {
  // Write a healthy inventory, then spoil parts of it behind its back.
  {
    Inventory inv = Open();
    for (tov::ApplicationId id : {1u, 2u}) ASSERT_EQ(inv.writer->AddInfo(App(id, u"f")), 0);
    ASSERT_EQ(inv.writer->Flush(), 0);
  }
  // How the record fails to parse is the serialiser's business.
  ASSERT_EQ(host.store.SetValue(Key("2"), Val("<root><id>2</id><fileName>unterminated")), 0);
  ASSERT_EQ(host.store.Commit(), 0);

  Inventory inv = Open();
  tov::ApplicationInfo info;
  EXPECT_EQ(inv.reader->GetApplicationInfo(1, info), 0);
  EXPECT_EQ(info.id, 1u);
  host.tracer.Clear();
  info = App(77, u"untouched");
  EXPECT_LT(inv.reader->GetApplicationInfo(2, info), 0);
  EXPECT_EQ(info.id, 77u);
  ASSERT_FALSE(host.Failures().empty());
  EXPECT_THAT(host.Failures().back(), HasSubstr("(LoadValue(MakeNodeName(id), info))"));
  EXPECT_EQ(inv.reader->GetApplicationInfo(4, info), zel::result::NotFound);

  // One bad record fails the whole list, which stays as it was.
  host.tracer.Clear();
  tov::ApplicationList list;
  list.timestamp = 5;
  EXPECT_LT(inv.reader->GetApplicationList(list), 0);
  EXPECT_EQ(list.timestamp, 5u);
  EXPECT_TRUE(list.list.empty());
  EXPECT_THAT(host.Failures().back(), HasSubstr("(LoadAppInfo(i, info)),(ZEL_SUCCEEDED(_result)) failed"));
}

TEST_F(InventoryStorageTest, SpoiltListOrTimestampStartsEmptyAndStillWorks) {
  struct Case {
    const char* name;
    std::string idList;  // "" : absent
    std::string timestamp;
    std::size_t ids;
    bool deserializeLine;
  };
  std::string goodTimestamp(8, '\0');
  goodTimestamp[0] = '\x2a';
  const Case cases[] = {
      {"truncated timestamp", "", std::string("\x01\x02\x03", 3), 0, false},
      {"list not XML", "{ not xml", goodTimestamp, 0, true},
      {"good", "", goodTimestamp, 0, false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    for (const auto& [key, value] : {std::pair{"appIdList", c.idList}, std::pair{"timestamp", c.timestamp}}) {
      ASSERT_GE(host.store.RemoveValue(Key(key)), 0);
      if (!value.empty()) {
        ASSERT_EQ(host.store.SetValue(Key(key), Val(value)), 0);
      }
    }
    ASSERT_EQ(host.store.Commit(), 0);
    host.tracer.Clear();

    Inventory inv = Open();
    const auto failures = host.Failures();
    if (c.deserializeLine) {
      ASSERT_FALSE(failures.empty());
      EXPECT_THAT(failures.back(), HasSubstr("Cannot deserialize data"));
    } else {
      EXPECT_TRUE(failures.empty()) << failures.front();
    }
    tov::ApplicationList list;
    ASSERT_EQ(inv.reader->GetApplicationList(list), 0);
    EXPECT_EQ(list.list.size(), c.ids);
    EXPECT_EQ(list.timestamp, c.timestamp.size() == 8 ? 0x2au : 0u);
    // And it takes new records as usual.
    ASSERT_EQ(inv.writer->AddInfo(App(1, u"fresh")), 0);
    ASSERT_EQ(inv.writer->Clear(), 0);
  }
}

TEST_F(InventoryStorageTest, NoStoreNoObject) {
  host.locator.Remove(Store::iid);
  const std::size_t blocks = host.allocator.LiveBlocks();
  EXPECT_FALSE(MakeInventory(&host.locator).writer);
  EXPECT_EQ(host.allocator.LiveBlocks(), blocks);
  EXPECT_THAT(host.tracer.Texts(),
              testing::Contains(HasSubstr("Cannot get app_core::component::IKeyValueStorage: 0x80000001")));
  host.locator.Register<Store>(&host.store);
}

TEST_F(InventoryStorageTest, ARecordTypeTheHostDoesNotKnowFailsTheCallNotTheProcess) {
  Inventory inv = Open();
  ASSERT_EQ(host.services.metaInfo->UnregisterDescriptor(tov::ApplicationInfo::SerId), 0);
  EXPECT_EQ(inv.writer->AddInfo(App(1, u"a")), zel::result::NotFound);
  const auto failures = host.Failures();
  ASSERT_FALSE(failures.empty());
  EXPECT_THAT(failures.back(),
              testing::StartsWith("virtual result_t tov::app_control::InventoryStorage::AddInfo(const "
                                  "tov::ApplicationInfo&) 0x8000004c (Not found). At include/zel/util/rtl_impl/"));
  host.services.metaInfo->RegisterDescriptor(zel::StaticTypeDescriptor<tov::ApplicationInfo>::Get());
}

TEST_F(InventoryStorageTest, AReaderBesideTheWriterSeesConsistentPrefixes) {
  host.tracer.SetLevelFilter(zel::trace_level::Error);
  Inventory inv = Open();
  constexpr tov::ApplicationId kCount = 200;
  std::atomic<bool> done{false};
  std::atomic<int> badLists{0};
  std::atomic<int> reads{0};
  std::thread reader([&] {
    std::size_t last = 0;
    while (!done.load()) {
      tov::ApplicationList list;
      if (inv.reader->GetApplicationList(list) != 0) {
        ++badLists;
        continue;
      }
      // Ids arrive in order 0, 1, 2...: any list is a prefix, never shrinking.
      bool prefix = list.list.size() >= last;
      for (std::size_t i = 0; i < list.list.size(); ++i) prefix = prefix && list.list[i].id == i;
      if (!prefix) ++badLists;
      last = list.list.size();
      tov::ApplicationIdList page;
      const zel::result_t r = inv.reader->GetApplicationIdList(last / 2, 10, page);
      if (r < 0 || (r == 0 && page.empty())) ++badLists;
      ++reads;
    }
  });
  for (tov::ApplicationId id = 0; id < kCount; ++id) ASSERT_EQ(inv.writer->AddInfo(App(id, u"w")), 0);
  ASSERT_EQ(inv.writer->Flush(), 0);
  while (reads.load() < 3) std::this_thread::yield();
  done = true;
  reader.join();
  EXPECT_EQ(badLists.load(), 0);
  tov::ApplicationList list;
  ASSERT_EQ(inv.reader->GetApplicationList(list), 0);
  EXPECT_EQ(list.list.size(), kCount);
}

// ---- a writer killed at a random moment -------------------------------------------

// Generation g adds Count(g) records with ids g*1000 + i and flushes; every
// third generation starts from a cleared inventory, the others grow it.
std::size_t Count(std::uint64_t g) { return 1 + (g * 37) % 150; }
bool StartsAfresh(std::uint64_t g) { return g == 1 || g % 3 == 0; }

[[noreturn]] void WriteForever(const std::string& path) {
  testsupport::InventoryHost child(zel::trace_level::Error);
  if (child.OpenStore(path) != 0) _exit(3);
  Inventory inv = MakeInventory(&child.locator);
  if (!inv) _exit(4);
  for (std::uint64_t g = 1;; ++g) {
    if (StartsAfresh(g)) inv.writer->Clear();
    for (std::size_t i = 0; i < Count(g); ++i) inv.writer->AddInfo(App(g * 1000 + i, u"w"));
    inv.writer->Flush();
  }
}

// Whether `list` is exactly what some Flush of WriteForever committed:
// whole generations, one after another, from one that started afresh.
bool IsCommittedInventory(const tov::ApplicationList& list, std::string& why) {
  std::size_t at = 0;
  std::uint64_t g = list.list[0].id / 1000;
  if (!StartsAfresh(g)) {
    why = "begins with generation " + std::to_string(g);
    return false;
  }
  while (at < list.list.size()) {
    for (std::size_t i = 0; i < Count(g); ++i, ++at) {
      if (at >= list.list.size() || list.list[at].id != g * 1000 + i) {
        why = "generation " + std::to_string(g) + " incomplete at " + std::to_string(at);
        return false;
      }
    }
    ++g;
    if (at < list.list.size() && StartsAfresh(g)) {
      why = "generation " + std::to_string(g) + " should have cleared";
      return false;
    }
  }
  return true;
}

std::int64_t RowCount(const std::string& path) {
  sqlite3* db = nullptr;
  std::int64_t n = -1;
  if (sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READONLY, nullptr) == SQLITE_OK) {
    sqlite3_stmt* s = nullptr;
    if (sqlite3_prepare_v2(db, "SELECT count(*) FROM key_value", -1, &s, nullptr) == SQLITE_OK &&
        sqlite3_step(s) == SQLITE_ROW) {
      n = sqlite3_column_int64(s, 0);
    }
    sqlite3_finalize(s);
  }
  sqlite3_close(db);
  return n;
}

TEST_F(InventoryStorageTest, AKilledWriterLeavesACompleteInventoryOrTheClearedOne) {
  std::mt19937 random(std::random_device{}());
  for (int round = 0; round < 6; ++round) {
    SCOPED_TRACE(round);
    host.store.Close();
    std::filesystem::remove_all(dir.path());
    std::filesystem::create_directories(dir.path());

    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) WriteForever(path);
    std::this_thread::sleep_for(std::chrono::milliseconds(50 + random() % 400));
    ASSERT_EQ(kill(child, SIGKILL), 0);
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFSIGNALED(status)) << "the writer stopped by itself: " << status;

    ASSERT_EQ(host.OpenStore(path), 0);
    const bool hasList = Committed("appIdList") != "-";
    EXPECT_EQ(hasList, Committed("timestamp") != "-") << "list and timestamp come and go together";
    Inventory inv = Open();
    tov::ApplicationList list;
    ASSERT_EQ(inv.reader->GetApplicationList(list), 0) << "every listed id has its record";
    if (list.list.empty()) {
      EXPECT_FALSE(hasList);
      EXPECT_EQ(list.timestamp, 0u);
      EXPECT_EQ(RowCount(path), hasList ? 2 : 0) << "no record outside the list";
      continue;
    }
    EXPECT_NE(list.timestamp, 0u);
    std::string why;
    EXPECT_TRUE(IsCommittedInventory(list, why)) << why;
    EXPECT_EQ(RowCount(path), static_cast<std::int64_t>(list.list.size()) + 2) << "no record outside the list";
    inv = {};
  }
}

}  // namespace
