// The inventory scan task against fake engine, storage and task-layer
// services, over trees generated in a temporary directory: what reaches the
// inventory, the GoldenImage category and key, stop and pause at the check
// points, the task-type lock across two tasks, and the trace of the walk.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "app_control/interfaces/iinventory_scan_task_construct.h"
#include "app_control/interfaces/iinventory_scan_task_settings.h"
#include "app_control/inventory_scan_task.h"
#include "app_control/module_entry.h"
#include "app_control/module_fixture.h"
#include "host/serialization/serialization_services.h"
#include "support/fake_file_services.h"
#include "support/fake_inventory_services.h"
#include "support/temp_tree.h"
#include "tov_common/categories/category_descriptors.h"
#include "zel/strings/conversions.h"

namespace {

namespace ac = tov::app_control;
namespace fs = std::filesystem;
using app_core::task_manager::task::ITask;
using tov::settings::GoldenImageAction;
using tov::settings::InventoryScanSettings;
using testing::ElementsAre;
using testing::UnorderedElementsAre;
using testsupport::MakeObject;

constexpr zel::result_t kFailure = zel::result::MediaError;

std::string Narrow(const zel::wstring_t& w) { return std::string(zel::Utf16ToUtf8(w.view()).view()); }

// The task's services, a base ahead of the module fixture: its locator lets go
// of them before they go.
struct ScanServices {
  testsupport::FakeAppController engine;
  testsupport::FakeFileFactory files;
  testsupport::FakeInventoryStorage storage;
  testsupport::FakeTaskTryMutex typeLock;
  testsupport::FakeTaskInfoProvider taskInfo;
  testsupport::FakeCgroupsManager cgroups;
  testsupport::RecordingCategoriesManager categories;
  testsupport::RecordingStopEvents stops;
  // Every path is in scope and no format known: every file is inventoried.
  zel::RefPtr<testsupport::FakePathMatcherFactory> pathMatchers = MakeObject<testsupport::FakePathMatcherFactory>();
  zel::RefPtr<testsupport::FakeFormatRecognizerFactory> recognizers =
      MakeObject<testsupport::FakeFormatRecognizerFactory>();
  testsupport::TempDir dir;
};

class InventoryScanTaskTest : public ScanServices, public testsupport::ModuleFixture {
 protected:
  void SetUp() override {
    ModuleFixture::SetUp();
    serialization = host::RegisterSerializationServices(locator);
    for (const zel::TypeDescriptor* d : tov::tools::CategoryExpressionDescriptors())
      serialization.metaInfo->RegisterDescriptor(d);
    locator.Register<app_ctrl::IEnterpriseApplicationController>(&engine);
    locator.Register<zel::IFileFactory>(&files, qurn::CLSID_FileFactories);
    locator.Register<ac::IInventoryStorage>(&storage);
    locator.Register<ITaskTryMutex>(&typeLock);
    locator.Register<ITaskInfoProvider>(&taskInfo);
    locator.Register<ICgroupsManager>(&cgroups);
    locator.Register<ICategoriesManager>(&categories);
    locator.Register<IPathMatcherFactory>(pathMatchers.Get());
    locator.Register<FormatRecognizerFactory>(recognizers.Get());
  }

  void File(const std::string& relative, bool executable = false) {
    const fs::path p = dir / relative;
    fs::create_directories(p.parent_path());
    std::ofstream(p) << "content of " << relative << "\n";
    if (executable) fs::permissions(p, fs::perms::owner_exec, fs::perm_options::add);
  }
  std::string Path(const std::string& relative) const { return dir / relative; }

  // Settings that walk `roots` (all enabled) with `action`.
  static InventoryScanSettings Settings(std::vector<std::string> roots,
                                        GoldenImageAction action = GoldenImageAction::None) {
    InventoryScanSettings s;
    s.goldenImageAction = action;
    s.scanScopes.clear();
    for (const auto& r : roots) s.scanScopes.emplace_back().path = zel::string_t(r.c_str());
    return s;
  }

  zel::RefPtr<ITask> MakeTask(const InventoryScanSettings& settings) {
    auto task = Create<ITask>(ac::kInventoryScanTaskClassId);
    if (!task) return task;
    zel::RefPtr<ac::IInventoryScanTaskConstruct> construct;
    EXPECT_EQ(task->QueryInterface(ac::IInventoryScanTaskConstruct::iid, reinterpret_cast<void**>(construct.Ref())), 0);
    EXPECT_EQ(construct->Construct(&settings), 0);
    return task;
  }

  // Starts, waits for the worker's stop notice and stops; the notice's result.
  zel::result_t RunToEnd(ITask* task, std::uint32_t session = 7) {
    const int before = stops.count;
    EXPECT_EQ(task->Start(session, &stops), 0);
    stops.WaitFor(before + 1);
    EXPECT_EQ(task->Stop(), 0);
    return stops.lastResult;
  }

  std::vector<std::string> StoredPaths() {
    std::vector<std::string> paths;
    for (const auto& r : storage.records) paths.push_back(Narrow(r.filePath));
    return paths;
  }

  // Every module object made by the test is gone and its memory went back
  // (the serialisation services keep their own allocator references).
  void ExpectTaskGone() {
    EXPECT_EQ(zel::ModuleLockCount.load(), lockCountBefore);
    EXPECT_EQ(allocator.LiveBlocks(), 0);
  }

  // Starts a walk held in the engine at "hold-here", makes `request` (Pause
  // or Stop) from another thread and lets the engine go once the request
  // stands; `whileHeld` looks on before that.
  void RequestInsideTheWalk(ITask* task, zel::result_t (ITask::*request)(),
                            const std::function<void(const std::atomic<bool>&)>& whileHeld = {}) {
    File("hold-here");
    engine.HoldAt("hold-here");
    ASSERT_EQ(task->Start(1, &stops), 0);
    engine.WaitHeld();
    std::atomic<bool> done{false};
    std::thread requester([&] {
      EXPECT_EQ((task->*request)(), 0);
      done = true;
    });
    // The worker must meet the request at a check point after the held file.
    auto* impl = static_cast<ac::InventoryScanTask*>(task);
    while (!(request == &ITask::Stop ? impl->StopRequested() : impl->PauseRequested())) ::usleep(1000);
    if (whileHeld) whileHeld(done);
    engine.Let();
    requester.join();
  }

  host::SerializationServices serialization;
  const std::string root = dir.path();
};

// Regular files below a directory root and a root that is one are stored;
// links, special files, procfs (itself walked as a root, its entries not)
// and a missing root are skipped. The last root's result is the run's.
TEST_F(InventoryScanTaskTest, WalkStoresEveryRegularFileAndSkipsTheRest) {
  File("a.sh");
  File("bin/tool", true);
  File("deep/er/x.py");
  fs::create_symlink(Path("a.sh"), Path("link-to-a"));
  fs::create_directory_symlink(Path("deep"), Path("link-to-deep"));
  ASSERT_EQ(::mkfifo(Path("pipe").c_str(), 0600), 0);
  taskInfo.cgroupName = "scans/inventory";
  {
    auto task =
        MakeTask(Settings({root, Path("link-to-a"), Path("pipe"), "/proc/self", Path("missing"), Path("a.sh")}));
    ASSERT_TRUE(task);
    EXPECT_EQ(RunToEnd(task.Get(), 42), 0);
  }
  const auto expected = UnorderedElementsAre(Path("a.sh"), Path("bin/tool"), Path("deep/er/x.py"), Path("a.sh"));
  EXPECT_THAT(engine.Seen(), expected);
  EXPECT_THAT(StoredPaths(), expected);
  EXPECT_EQ(storage.journal.front(), "Clear");
  EXPECT_EQ(storage.journal.back(), "Flush");
  EXPECT_EQ(engine.lastFlags, 0u);
  EXPECT_EQ(files.arguments, (std::vector<std::uint32_t>{1, 1, 4, 0}));
  EXPECT_EQ(taskInfo.askedSession.load(), 42u);
  // The worker joins the task's cgroup by its own thread id.
  EXPECT_EQ(cgroups.lastGroup, "scans/inventory");
  EXPECT_NE(cgroups.lastTid, static_cast<std::int32_t>(::getpid()));
  EXPECT_GT(cgroups.lastTid, 0);
  EXPECT_TRUE(Traced("skip (not a regular file)"));  // the links and the fifo
  EXPECT_TRUE(Traced("skip magic"));
  EXPECT_TRUE(Traced("skip " + Path("pipe")));
  EXPECT_TRUE(Traced("Cannot stat " + Path("missing") + ": No such file or directory"));
  EXPECT_TRUE(Traced("InventoryScanTask::OpenFile(const tov::NativePath&, zel::RefPtr<zel::IIO>&), " + Path("a.sh")));
  // Nothing to publish and nothing to remove, but the call is made.
  ASSERT_EQ(categories.puts.size(), 1u);
  EXPECT_TRUE(categories.puts[0].categories.empty());
  EXPECT_TRUE(categories.puts[0].removeNames.empty());
  EXPECT_EQ(categories.puts[0].action, tov::types::CategoriesAction::AddInvScan);
  EXPECT_FALSE(typeLock.Held(ac::kInventoryScanTaskType));
  ExpectTaskGone();

  // A missing root last: its failure is the notice's.
  EXPECT_EQ(RunToEnd(MakeTask(Settings({Path("a.sh"), Path("missing")})).Get()), zel::result::UnspecifiedError);
}

// Files the factory or the matcher refuse never reach the engine; the
// engine's answers decide whether and how the others are stored. Remove drops
// the GoldenImage key from the records and names the category.
TEST_F(InventoryScanTaskTest, EngineAnswersShapeTheRecord) {
  for (const char* f : {"nohash", "noname", "fails", "keys", "open-fails", "refused/inner"}) File(f);
  files.refused.insert(Path("open-fails"));
  pathMatchers->matcher->rejected.insert(Path("refused"));
  engine.answers[Path("nohash")].emptyHash = true;
  engine.answers[Path("noname")].emptyName = true;
  engine.answers[Path("fails")].fail = true;
  engine.answers[Path("keys")].keys = {{1, zel::wstring_t(u"ABC")},
                                       {0, zel::wstring_t(u"zz")},
                                       {1, zel::wstring_t(u"EAC00500-0000-0000-0000-000000000000")}};
  auto task = MakeTask(Settings({root}, GoldenImageAction::Remove));
  EXPECT_EQ(RunToEnd(task.Get()), 0);

  EXPECT_THAT(engine.Seen(), UnorderedElementsAre(Path("nohash"), Path("noname"), Path("fails"), Path("keys")));
  EXPECT_THAT(StoredPaths(), UnorderedElementsAre(Path("noname"), Path("keys")));
  for (const auto& r : storage.records) {
    if (Narrow(r.filePath) == Path("noname")) {
      EXPECT_EQ(Narrow(r.fileName), "noname");
    }
    if (Narrow(r.filePath) == Path("keys")) {
      std::vector<std::pair<std::uint32_t, std::string>> keys;
      for (const auto& k : r.categoryKeys) keys.emplace_back(k.kind, Narrow(k.text));
      EXPECT_THAT(keys, ElementsAre(std::pair<std::uint32_t, std::string>{0, "zz"},
                                    std::pair<std::uint32_t, std::string>{1, "abc"}));
    }
  }
  EXPECT_TRUE(Traced("Skip " + Path("nohash")));
  EXPECT_TRUE(Traced("(m_appController->InventoryModule(io, flags, info)),(ZEL_SUCCEEDED(_result)) failed: result = "
                     "0x80000045 (Access denied)Cannot inventory " + Path("fails")));
  EXPECT_TRUE(Traced("Cannot open file '" + Path("open-fails") + "'"));
  ASSERT_EQ(categories.puts.size(), 1u);
  EXPECT_TRUE(categories.puts[0].categories.empty());
  ASSERT_EQ(categories.puts[0].removeNames.size(), 1u);
  EXPECT_EQ(Narrow(categories.puts[0].removeNames[0]), "GoldenImage");
}

TEST_F(InventoryScanTaskTest, GoldenImageAddPutsKeyInEveryRecordAndOneCriterionPerRecord) {
  File("one");
  File("two");
  File("nohash");
  engine.answers[Path("nohash")].emptyHash = true;
  auto task = MakeTask(Settings({root}, GoldenImageAction::Add));
  EXPECT_EQ(RunToEnd(task.Get()), 0);

  ASSERT_EQ(storage.records.size(), 2u);
  for (const auto& r : storage.records) {
    ASSERT_EQ(r.categoryKeys.size(), 1u);
    EXPECT_EQ(r.categoryKeys[0].kind, 1u);
    EXPECT_EQ(Narrow(r.categoryKeys[0].text), "eac00500-0000-0000-0000-000000000000");
  }
  ASSERT_EQ(categories.puts.size(), 1u);
  const auto& put = categories.puts[0];
  EXPECT_TRUE(put.removeNames.empty());
  ASSERT_EQ(put.categories.size(), 1u);
  const app_ctrl::Category& golden = put.categories[0];
  EXPECT_EQ(golden.GUID, app_ctrl::GoldenImageCategoryId);
  EXPECT_EQ(Narrow(golden.Name), "GoldenImage");
  EXPECT_TRUE(golden.Exclude.empty());
  std::vector<std::string> names, hashes;
  for (const auto& c : golden.Include) {
    names.push_back(Narrow(c.criterionName));
    ASSERT_EQ(c.expression.descriptor()->serId, app_ctrl::CategoryFileInfoOperationExpression::SerId);
    const auto* e = static_cast<const app_ctrl::CategoryFileInfoOperationExpression*>(c.expression.get());
    EXPECT_EQ(e->field, app_ctrl::CategoryFileInfoField::FileHash);
    EXPECT_EQ(e->operation, app_ctrl::CategoryStringOperation::Equal);
    hashes.push_back(Narrow(e->value));
  }
  EXPECT_THAT(names, UnorderedElementsAre(Path("one"), Path("two")));
  EXPECT_THAT(hashes, UnorderedElementsAre("h:" + Path("one"), "h:" + Path("two")));
}

TEST_F(InventoryScanTaskTest, StopDuringTheWalkLeavesAnEmptyInventoryAndReportsSuccess) {
  for (int i = 0; i < 20; ++i) File("f" + std::to_string(i));
  auto task = MakeTask(Settings({root, root}, GoldenImageAction::Remove));
  RequestInsideTheWalk(task.Get(), &ITask::Stop);  // Stop sets the flag and joins
  auto* impl = static_cast<ac::InventoryScanTask*>(task.Get());
  EXPECT_EQ(stops.count, 1);
  EXPECT_EQ(stops.lastResult, 0);
  EXPECT_EQ(stops.lastMessage, u"Task stopped");
  EXPECT_TRUE(storage.records.empty());
  EXPECT_EQ(storage.journal.back(), "Flush");
  EXPECT_LT(engine.callCount.load(), 42) << "the second root is never walked";
  // A stop with Remove still names the category.
  ASSERT_EQ(categories.puts.size(), 1u);
  EXPECT_EQ(categories.puts[0].removeNames.size(), 1u);
  EXPECT_EQ(impl->CurrentState(), ac::InventoryScanTask::Stopped);
  EXPECT_FALSE(typeLock.Held(ac::kInventoryScanTaskType));

  // Started again, the old stop request still stands: the first root ends
  // at once, the inventory is cleared and the run reports success.
  const int seen = engine.callCount.load();
  EXPECT_EQ(RunToEnd(task.Get()), 0);
  EXPECT_LE(engine.callCount.load(), seen + 1);
  EXPECT_TRUE(storage.records.empty());
}

TEST_F(InventoryScanTaskTest, PauseParksTheWorkerBetweenEntriesAndResumeOrReleaseLetsItGo) {
  for (int i = 0; i < 10; ++i) File("f" + std::to_string(i));
  auto task = MakeTask(Settings({root}));
  auto* impl = static_cast<ac::InventoryScanTask*>(task.Get());
  EXPECT_EQ(task->Resume(), zel::result::InvalidState);
  RequestInsideTheWalk(task.Get(), &ITask::Pause, [&](const std::atomic<bool>& paused) {
    ::usleep(5000);
    EXPECT_FALSE(paused.load());
    EXPECT_EQ(impl->CurrentState(), ac::InventoryScanTask::Pausing);
  });
  EXPECT_EQ(impl->CurrentState(), ac::InventoryScanTask::Suspended);
  const int calls = engine.callCount.load();
  ::usleep(20000);
  EXPECT_EQ(engine.callCount.load(), calls) << "no file while parked";
  EXPECT_EQ(task->Pause(), zel::result::InvalidState);
  EXPECT_EQ(task->Stop(), zel::result::InvalidState) << "a suspended task is resumed first";

  EXPECT_EQ(task->Resume(), 0);
  EXPECT_EQ(impl->CurrentState(), ac::InventoryScanTask::Started);
  stops.WaitFor(1);
  EXPECT_EQ(task->Stop(), 0);
  EXPECT_EQ(storage.records.size(), 11u);
  EXPECT_TRUE(Traced("Request pause and wait"));
  EXPECT_TRUE(Traced("Thread suspended"));
  EXPECT_TRUE(Traced("Resuming thread"));

  // Released while parked, the task ends its worker (stop, open the gate, join).
  RequestInsideTheWalk(task.Get(), &ITask::Pause);
  task = nullptr;
  EXPECT_EQ(stops.count, 2);
  EXPECT_FALSE(typeLock.Held(ac::kInventoryScanTaskType));
  ExpectTaskGone();
}

// Two host threads pause and resume as fast as they can while the worker
// walks: each request takes effect or is refused as out of state, and no
// file is lost or stored twice. The storm ends well before the walk does,
// since a pause after the worker has ended would wait for ever.
TEST_F(InventoryScanTaskTest, PauseAndResumeStormLosesNoFile) {
  constexpr int kFiles = 1000;
  constexpr int kStormUntil = 300;  // files seen
  for (int i = 0; i < kFiles; ++i) File("d" + std::to_string(i / 100) + "/f" + std::to_string(i));
  engine.delayMicros = 200;
  auto task = MakeTask(Settings({root}));
  ASSERT_EQ(task->Start(1, &stops), 0);

  std::atomic<int> paused{0}, resumed{0}, refused{0}, unexpected{0};
  auto count = [&](zel::result_t r, std::atomic<int>& done) {
    if (r == zel::result::NoError) {
      ++done;
    } else {
      ++(r == zel::result::InvalidState ? refused : unexpected);
    }
  };
  auto storm = [&] {
    while (engine.callCount.load() < kStormUntil) {
      count(task->Pause(), paused);
      count(task->Resume(), resumed);
    }
  };
  std::thread first(storm), second(storm);
  first.join();
  second.join();
  // The last word may have been a pause.
  if (paused.load() > resumed.load()) count(task->Resume(), resumed);

  stops.WaitFor(1);
  EXPECT_EQ(task->Stop(), 0);
  EXPECT_EQ(stops.lastResult, 0);
  EXPECT_EQ(unexpected.load(), 0);
  EXPECT_GT(paused.load(), 0);
  EXPECT_EQ(paused.load(), resumed.load());
  std::vector<std::string> stored = StoredPaths();
  std::sort(stored.begin(), stored.end());
  EXPECT_EQ(std::unique(stored.begin(), stored.end()), stored.end()) << "a file stored twice";
  EXPECT_EQ(stored.size(), static_cast<std::size_t>(kFiles));
  task = nullptr;
  ExpectTaskGone();
}

TEST_F(InventoryScanTaskTest, TaskTypeLockKeepsASecondScanOutAndAnEndedOneBlocksNothing) {
  File("hold-here");
  engine.HoldAt("hold-here");
  auto first = MakeTask(Settings({root}));
  auto second = MakeTask(Settings({root}));
  ASSERT_EQ(first->Start(1, &stops), 0);
  engine.WaitHeld();
  EXPECT_EQ(second->Start(2, &stops), zel::result::UnspecifiedError);
  EXPECT_EQ(first->Start(3, &stops), zel::result::UnspecifiedError) << "the lock answers first";
  EXPECT_TRUE(Traced("Task with type 'InventoryScan' already runs."));
  EXPECT_TRUE(Traced("Task start is locked by another concurrent action"));
  engine.Let();
  stops.WaitFor(1);
  // Ended but not stopped: a new start is refused and gives the lock back.
  while (typeLock.Held(ac::kInventoryScanTaskType)) ::usleep(1000);  // let go after the notice
  EXPECT_EQ(first->Start(5, &stops), zel::result::InvalidState);
  EXPECT_TRUE(Traced("Task is not stopped, session id: 5"));
  EXPECT_EQ(first->Stop(), 0);
  ASSERT_FALSE(typeLock.Held(ac::kInventoryScanTaskType));
  EXPECT_EQ(RunToEnd(second.Get()), 0);
  EXPECT_EQ(first->Stop(), zel::result::InvalidState);

  // Without the service nothing starts.
  locator.Refuse(ITaskTryMutex::iid);
  EXPECT_EQ(first->Start(4, &stops), zel::result::UnspecifiedError);
  EXPECT_TRUE(Traced("Cannot get service for ITaskTryMutex."));
}

// Failures of the run's steps: each ends the run where it arises, with the
// notice carrying the result variable as it stood. With every scope disabled
// nothing is walked and that result stands untouched.
TEST_F(InventoryScanTaskTest, FailingStepsEndTheRun) {
  File("a");
  InventoryScanSettings settings;
  struct Case {
    const char* name;
    std::function<void()> arrange;
    const char* traced;
    bool walked;
    bool flushed;
  };
  const std::vector<Case> cases = {
      {"cgroups service", [&] { locator.Refuse(ICgroupsManager::iid); }, "Cannot get ICgroupsManager", false, false},
      {"task info", [&] { taskInfo.result = kFailure; }, "Cannot get task info by session id", false, false},
      {"cgroup join",
       [&] {
         taskInfo.cgroupName = "scan";
         cgroups.result = kFailure;
       },
       " to cgroup scan", false, false},
      {"clear", [&] { storage.clearResult = kFailure; }, "(m_inventory->Clear()),", false, false},
      // The run's line names what the matcher missed.
      {"matcher", [&] { locator.Refuse(IPathMatcherFactory::iid); }, "Cannot get IPathMatcherFactory interface", false,
       false},
      {"put categories", [&] { categories.result = kFailure; }, "Cannot change GoldenImage category", true, false},
      {"all scopes disabled",
       [&] {
         for (auto& scope : settings.scanScopes) scope.enabled = false;
       },
       "Task has been stopped with result 0x8000004b", false, true},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    locator.Allow(ICgroupsManager::iid);
    locator.Allow(IPathMatcherFactory::iid);
    taskInfo.result = 0;
    taskInfo.cgroupName.clear();
    cgroups.result = 0;
    storage.clearResult = 0;
    categories.result = 0;
    storage.journal.clear();
    tracer.Clear();
    settings = Settings({root, root});
    c.arrange();
    const int calls = engine.callCount.load();
    auto task = MakeTask(settings);
    const zel::result_t r = RunToEnd(task.Get());
    EXPECT_EQ(r, c.walked ? 0 : zel::result::UnspecifiedError);
    EXPECT_TRUE(Traced(c.traced));
    EXPECT_EQ(engine.callCount.load() > calls, c.walked);
    EXPECT_EQ(std::count(storage.journal.begin(), storage.journal.end(), "Flush"), c.flushed ? 1 : 0);
    EXPECT_FALSE(typeLock.Held(ac::kInventoryScanTaskType));
  }
}

// Creation fails without the engine, the file factory or the storage.
TEST_F(InventoryScanTaskTest, CreationAndSettings) {
  for (zel::iid_t iid : {app_ctrl::IEnterpriseApplicationController::iid, zel::IFileFactory::iid,
                         ac::IInventoryStorage::iid}) {
    locator.Refuse(iid, kFailure);
    auto factory = Factory(ac::kInventoryScanTaskClassId);
    void* out = nullptr;
    EXPECT_EQ(factory->CreateInstance(&locator, ITask::iid, &out), kFailure);
    EXPECT_EQ(out, nullptr);
    locator.Allow(iid);
  }
  EXPECT_TRUE(Traced("(zel::GetInterface(sl, m_appController.Ref())),"));
  EXPECT_TRUE(Traced("(zel::GetInterface(sl, qurn::CLSID_FileFactories, m_fileFactory.Ref())),"));
  EXPECT_TRUE(Traced("Cannot get IInventoryStorage interface"));
  ExpectTaskGone();

  // With them, a new task's settings: defaults, then what was set.
  auto task = Create<ac::IInventoryScanTaskSettings>(ac::kInventoryScanTaskClassId);
  ASSERT_TRUE(task);
  InventoryScanSettings got;
  got.scanScopes.clear();
  EXPECT_EQ(task->GetSettings(&got), 0);
  ASSERT_EQ(got.scanScopes.size(), 1u);
  EXPECT_EQ(got.scanScopes[0].path, "/usr/bin");
  EXPECT_EQ(got.scanScopes[0].name, u"All objects");
  EXPECT_TRUE(got.firstFormatGroupEnabled && got.secondFormatGroupEnabled && got.executableBitEnabled);

  InventoryScanSettings set = Settings({"/a", "/b"}, GoldenImageAction::Add);
  set.executableBitEnabled = false;
  set.secondaryScopes.push_back(tov::settings::SecondaryScope{zel::wstring_t(u"s"), zel::string_t("/c"), {}, 3});
  EXPECT_EQ(task->SetSettings(&set), 0);
  EXPECT_EQ(task->GetSettings(&got), 0);
  EXPECT_EQ(got.goldenImageAction, GoldenImageAction::Add);
  EXPECT_FALSE(got.executableBitEnabled);
  ASSERT_EQ(got.scanScopes.size(), 2u);
  EXPECT_EQ(got.scanScopes[1].path, "/b");
  ASSERT_EQ(got.secondaryScopes.size(), 1u);
  EXPECT_EQ(got.secondaryScopes[0].matcherFlags, 3u);
}

TEST(NormaliseCategoryKeysTest, FoldsSortsDeduplicatesAndDropsGoldenImageOnRequest) {
  struct Case {
    std::vector<std::pair<std::uint32_t, std::u16string>> in;
    bool drop;
    std::vector<std::pair<std::uint32_t, std::u16string>> out;
  };
  const std::u16string golden = u"eac00500-0000-0000-0000-000000000000";
  const std::vector<Case> cases = {
      {{}, false, {}},
      {{{1, u"B"}, {1, u"a"}, {0, u"z"}}, false, {{0, u"z"}, {1, u"a"}, {1, u"b"}}},
      {{{1, u"Ab"}, {1, u"aB"}, {1, u"ab"}}, false, {{1, u"ab"}}},
      {{{1, u"abc"}, {1, u"ab"}}, false, {{1, u"ab"}, {1, u"abc"}}},
      // Only A to Z fold; other letters keep their case.
      {{{1, u"\u00C4"}}, false, {{1, u"\u00C4"}}},
      {{{1, u"EAC00500-0000-0000-0000-000000000000"}, {1, u"x"}}, true, {{1, u"x"}}},
      {{{1, golden}}, false, {{1, golden}}},
      // Only kind 1 is the GoldenImage key.
      {{{0, golden}}, true, {{0, golden}}},
  };
  for (const Case& c : cases) {
    zel::types::vector_t<tov::CategoryKey> keys;
    for (const auto& [kind, text] : c.in) keys.push_back(tov::CategoryKey{kind, zel::wstring_t(text)});
    ac::NormaliseCategoryKeys(keys, c.drop);
    std::vector<std::pair<std::uint32_t, std::u16string>> out;
    for (const auto& k : keys) out.emplace_back(k.kind, std::u16string(k.text.view()));
    EXPECT_EQ(out, c.out);
  }
}

}  // namespace
