// The built module, loaded with dlopen, over the reference host: its
// exports, program starts checked event by event, and fault sweeps, where one host operation
// (or one allocation) fails in each run. Run N fails the Nth fault-point
// call of the scenario; the sweep goes on until a run completes without
// reaching its fault. Every run must end with no block, no module object and
// no descriptor left over, with the result and trace line the module gives
// for that failure, and, for the scan, with the store holding the previous
// inventory or what the run itself stored, never a mix.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "app_control/interfaces/iapp_control_task_settings.h"
#include "app_control/interfaces/iinventory_info_provider.h"
#include "app_control/interfaces/iinventory_scan_task_construct.h"
#include "app_control/interfaces/iinventory_storage.h"
#include "app_control/interfaces/itask.h"
#include "app_control/module_entry.h"
#include "host/cli/record_codecs.h"
#include "host/engine/engine_services.h"
#include "host/engine/file_facts.h"
#include "host/files/file_services.h"
#include "host/module/module_loader.h"
#include "host/serialization/serialization_services.h"
#include "host/services/categories_manager.h"
#include "host/services/collecting_tracer.h"
#include "host/services/counting_allocator.h"
#include "host/services/fault_switchboard.h"
#include "host/services/pwdb.h"
#include "host/services/service_locator.h"
#include "host/services/service_manager.h"
#include "host/storage/key_value_store.h"
#include "tests/tov_common/categories/category_meta_info.h"
#include "tov_common/categories/category_descriptors.h"
#include "tov_common/inventory/application_info.h"
#include "tov_common/settings/app_control_settings.h"
#include "tov_common/settings/inventory_scan_settings.h"
#include "tov_common/settings/settings_descriptors.h"
#include "zel/iobject_factory.h"
#include "zel/rtl/objclient.h"

namespace {

namespace fs = std::filesystem;
using app_core::task_manager::task::ITask;
using host::FaultPoint;

// A code nothing else in these scenarios gives, so that it can be traced back.
constexpr zel::result_t kFault = zel::result::MediaError;
constexpr std::uint32_t kScanSession = 5;

host::FaultSwitchboard& Board() { return host::FaultSwitchboard::Instance(); }

std::size_t OpenDescriptors() {
  std::size_t n = 0;
  for ([[maybe_unused]] const auto& entry : fs::directory_iterator("/proc/self/fd")) ++n;
  return n;
}

zel::wstring_t W(const std::string& s) { return zel::wstring_t(std::u16string(s.begin(), s.end())); }
std::string N(const zel::wstring_t& s) {
  std::string out;
  for (char16_t c : std::u16string_view(s.view())) out.push_back(static_cast<char>(c));
  return out;
}

// In memory where the machine offers it: a sweep commits its stores hundreds
// of times, and a disk's syncs would make up most of its time.
std::string MakeTempDir(const char* stem) {
  static const std::string base = fs::is_directory("/dev/shm") ? "/dev/shm/" : "/tmp/";
  std::string pattern = base + stem + "_XXXXXX";
  return ::mkdtemp(pattern.data()) ? pattern : std::string();
}

void WriteFile(const fs::path& path, const std::string& body) { std::ofstream(path) << body; }

std::string Hex(zel::result_t r) {
  char buffer[16];
  std::snprintf(buffer, sizeof buffer, "0x%08x", static_cast<unsigned>(r));
  return buffer;
}

// What one run did: where its fault fell, what the step it fell in
// answered, and the warnings and errors it traced (as one text for the
// failure message, and line by line).
struct Outcome {
  std::optional<FaultPoint> fired;
  std::string step;
  zel::result_t result = 0;
  std::string failureLines;
  std::vector<std::string> lines;  // levels 300 and 500

  std::string Describe() const {
    if (!fired) return "no fault";
    return std::string(host::FaultPointName(*fired)) + " in " + step + " -> " + Hex(result);
  }
  bool Traced(const char* text) const {
    for (const auto& line : lines)
      if (line.find(text) != std::string::npos) return true;
    return false;
  }
  void Collect(const host::CollectingTracer& tracer) {
    for (const auto& line : tracer.Lines()) {
      if (line.level > 500) continue;
      failureLines += "  [" + std::to_string(line.level) + "] " + line.text + "\n";
      lines.push_back(line.text);
    }
  }
};

// Runs one step of a scenario, noting in `outcome` whether the fault fired in it.
zel::result_t Step(Outcome& outcome, const char* step, const std::function<zel::result_t()>& body) {
  const zel::result_t r = body();
  if (outcome.step.empty() && Board().Fired()) {
    outcome.fired = Board().Fired();
    outcome.step = step;
    outcome.result = r;
  }
  return r;
}

// Runs `one` with its Nth fault point failing, for N = 1, 2, ... until a run
// reaches no fault (FAULT_SWEEP_VERBOSE=1 prints every run). Every run must
// leave no block, module object or descriptor behind; `check` looks at the
// rest. Prints and records how many fault points it went through, and where.
template <class Run>
void Sweep(const char* name, const host::LoadedModule& module, std::uint64_t atLeast,
           const std::function<void(host::CountingAllocator&, std::uint64_t, Run&)>& one,
           const std::function<void(const Run&)>& check) {
  static const bool verbose = std::getenv("FAULT_SWEEP_VERBOSE") != nullptr;
  const std::size_t descriptors = OpenDescriptors();
  std::uint64_t exercised = 0;
  std::map<std::string, std::uint64_t> byPoint;
  for (std::uint64_t nth = 1;; ++nth) {
    SCOPED_TRACE("fault point " + std::to_string(nth));
    host::CountingAllocator allocator;
    Run run;
    one(allocator, nth, run);
    if (::testing::Test::HasFatalFailure()) return;
    SCOPED_TRACE(run.Describe() + "\n" + run.failureLines);
    if (verbose) std::printf("%4llu %s\n", static_cast<unsigned long long>(nth), run.Describe().c_str());
    EXPECT_EQ(allocator.LiveBlocks(), 0) << "every block went back";
    EXPECT_EQ(module.CanUnload(), 0) << "no module object is left";
    EXPECT_EQ(OpenDescriptors(), descriptors) << "no descriptor is left open";
    check(run);
    if (!run.fired) break;
    ++exercised;
    ++byPoint[std::string(host::FaultPointName(*run.fired))];
  }
  std::string points;
  for (const auto& [point, count] : byPoint) points += " " + point + "=" + std::to_string(count);
  std::printf("%s: fault points exercised: %llu (%s )\n", name, static_cast<unsigned long long>(exercised),
              points.c_str());
  ::testing::Test::RecordProperty("fault_points_exercised", static_cast<int>(exercised));
  EXPECT_GT(exercised, atLeast);
}

template <class I>
zel::RefPtr<I> CreateModuleObject(const host::LoadedModule& module, zel::IServiceLocator* locator,
                                  std::uint32_t classId, zel::result_t* result = nullptr) {
  zel::IObjectFactory* factory = nullptr;
  zel::result_t r = module.GetObjectFactory(locator, classId, &factory);
  void* out = nullptr;
  if (r == 0) {
    r = factory->CreateInstance(locator, I::iid, &out);
    factory->Release();
  }
  if (result) *result = r;
  return r == 0 ? zel::RefPtr<I>::Adopt(static_cast<I*>(out)) : zel::RefPtr<I>();
}

// The reference host of every scenario, over a state file in `dir` that
// outlives it: the serialisers with every descriptor the scenarios need and
// the module's own records joined to them, and the host's services.
struct SweepHost {
  SweepHost(host::CountingAllocator& allocator, const host::LoadedModule& module, const fs::path& dir) {
    locator.Register<zel::IAllocator>(&allocator);
    locator.Register<zel::ITracer>(&tracer);
    serialisation = host::RegisterSerializationServices(locator);
    for (auto descriptors : {tov::settings::SettingsRecordDescriptors(), tov::tools::CategoryExpressionDescriptors(),
                             tov::InventoryRecordDescriptors()})
      for (const zel::TypeDescriptor* d : descriptors) serialisation.metaInfo->RegisterDescriptor(d);
    registry = CreateModuleObject<zel::IMetaInfoProvider>(module, &locator,
                                                          tov::app_control::kTypeDescriptorStaticRegistryClassId);
    if (registry) serialisation.metaInfo->RegisterProvider(registry.Get());
    serviceManager.UseBinarySerializer(&locator);
    host::cli::RegisterRecordCodecs(serviceManager, &locator);
    const std::string db = (dir / "state.db").string();
    serviceManager.Open(db);
    categories.Open(db);
    store.Open(db);
    locator.Register<IPwdb>(&pwdb);
    locator.Register<app_core::facade::IServiceManager>(&serviceManager);
    locator.Register<ICategoriesManager>(&categories);
    locator.Register<app_core::component::IKeyValueStorage>(&store);
    host::RegisterFileServices(locator, files);
    host::RegisterEngineServices(locator, engine);
    TaskDescription task;
    task.taskId = 22;
    task.taskName = zel::wstring_t(u"Inventory_Scan");
    task.taskType = zel::wstring_t(u"InventoryScan");
    task.sessionId = kScanSession;
    engine.tasks.Add(task, std::string());
  }
  ~SweepHost() {
    locator.Remove(tov::app_control::IInventoryStorage::iid);
    host::UnregisterEngineServices(locator);
    host::UnregisterFileServices(locator);
    for (zel::iid_t iid : {app_core::component::IKeyValueStorage::iid, ICategoriesManager::iid, IPwdb::iid,
                           app_core::facade::IServiceManager::iid})
      locator.Remove(iid);
    store.Close();
    categories.Close();
    serviceManager.Close();
    if (registry) serialisation.metaInfo->UnregisterProvider(registry.Get());
  }

  host::CollectingTracer tracer;
  host::ServiceLocator locator;
  host::SerializationServices serialisation;
  zel::RefPtr<zel::IMetaInfoProvider> registry;
  host::Pwdb pwdb;
  host::ServiceManager serviceManager;
  host::CategoriesManager categories{&locator};
  host::KeyValueStore store;
  host::FileServices files;
  host::EngineServices engine;
};

class FaultSweepTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { module = new host::LoadedModule(AC_MODULE_PATH); }
  static void TearDownTestSuite() {
    delete module;
    module = nullptr;
  }
  void TearDown() override { Board().Disarm(); }

  static host::LoadedModule* module;
};
host::LoadedModule* FaultSweepTest::module = nullptr;

// The module file: each export is wired to its own entry point, and the
// module stays loaded while its objects live (what they do is tested in
// process)

constexpr std::uint32_t kDispatcherClass = 0xA17CCC95;

std::set<std::string> DefinedDynamicSymbols(const std::string& path) {
  std::set<std::string> names;
  const std::string command = "nm -D --defined-only '" + path + "'";
  std::unique_ptr<FILE, int (*)(FILE*)> pipe(popen(command.c_str(), "r"), pclose);
  if (!pipe) return names;
  char line[1024];
  while (std::fgets(line, sizeof line, pipe.get()) != nullptr) {
    // "<address> <type> <name>"; version nodes (type A) are not symbols of ours.
    std::istringstream in(line);
    std::string address, type, name;
    if (in >> address >> type >> name && type != "A") names.insert(name);
  }
  return names;
}

TEST(ModuleTest, ExportsTheThreeEntryPointsAndUnloadFollowsLivingObjects) {
  EXPECT_EQ(DefinedDynamicSymbols(AC_MODULE_PATH),
            (std::set<std::string>{"zelCanUnloadModule", "zelCreateObject", "zelGetObjectFactory"}));
  host::LoadedModule module{AC_MODULE_PATH};
  host::CountingAllocator allocator;
  host::CollectingTracer tracer;
  host::ServiceLocator locator;
  locator.Register<zel::IAllocator>(&allocator);
  locator.Register<zel::ITracer>(&tracer);
  ASSERT_EQ(module.CanUnload(), 0);
  const auto factoryOf = [&] {
    zel::IObjectFactory* f = nullptr;
    EXPECT_EQ(module.GetObjectFactory(&locator, kDispatcherClass, &f), 0);
    return zel::RefPtr<zel::IObjectFactory>::Adopt(f);
  };
  auto factory = factoryOf();
  auto other = factoryOf();
  EXPECT_NE(factory.Get(), other.Get());
  EXPECT_EQ(module.CanUnload(), 1);
  other.Reset();

  void* out = nullptr;
  ASSERT_EQ(factory->CreateInstance(&locator, 0, &out), 0);
  factory.Reset();
  EXPECT_EQ(module.CanUnload(), 1) << "the dispatcher still lives";
  EXPECT_FALSE(module.Unload());
  static_cast<zel::IObject*>(out)->Release();
  EXPECT_EQ(module.CanUnload(), 0);
  EXPECT_EQ(allocator.LiveBlocks(), 0);
  EXPECT_TRUE(module.Unload());
}

// (a) the application control task through its whole life

tov::settings::AppControlRule Rule(std::u16string_view name, std::u16string_view category, tov::UserAccess access) {
  tov::settings::AppControlRule rule;
  rule.ruleName = zel::wstring_t(name);
  rule.categoryName = zel::wstring_t(category);
  auto& user = rule.users.emplace_back();
  user.userName = zel::wstring_t(u"root");
  user.access = access;
  return rule;
}

// Root may run what has the hash of "trusted" (allow list), and may not run
// the scripts (deny list).
tov::settings::AppControlSettings AppControlSettings(tov::AppControlMode mode) {
  tov::settings::AppControlSettings settings;
  settings.mode = mode;
  settings.enforcement = tov::AppControlEnforcement::ApplyRules;
  settings.allowListRules.push_back(Rule(u"trusted by hash", u"Hashed", tov::UserAccess::Allow));
  settings.denyListRules.push_back(Rule(u"no scripts", u"Scripts", tov::UserAccess::Block));
  return settings;
}

// A scratch directory with three programs: "trusted", "other" and bin/script.
fs::path MakePrograms(const char* stem) {
  const fs::path dir = MakeTempDir(stem);
  fs::create_directories(dir / "bin");
  WriteFile(dir / "trusted", "trusted program");
  WriteFile(dir / "other", "another program");
  WriteFile(dir / "bin" / "script", "#!/bin/sh\n");
  return dir;
}

// The user categories of those rules: "Hashed", the content of "trusted";
// "Scripts", what bin holds.
void AddProgramCategories(SweepHost& h, host::CountingAllocator& allocator, const fs::path& dir) {
  std::string sha;
  EXPECT_EQ(host::engine::Sha256File((dir / "trusted").string(), &sha), 0);
  using Field = app_ctrl::CategoryFileInfoField;
  using Op = app_ctrl::CategoryStringOperation;
  const std::pair<const char16_t*, app_ctrl::CategoryFileInfoOperationExpression> categories[] = {
      {u"Hashed", {Field::FileSha256Hash, Op::Equal, W(sha)}},
      {u"Scripts", {Field::FilePath, Op::Like, W((dir / "bin").string() + "/*")}}};
  ICategoriesManager::CategoryList list;
  for (const auto& [name, expression] : categories) {
    auto& category = list.emplace_back();
    category.GUID = app_ctrl::CategoryId{{static_cast<std::uint8_t>(0x11 * list.size())}};
    category.Name = zel::wstring_t(name);
    category.Include.emplace_back().expression.assign_copy(
        &expression, category_test::Described<app_ctrl::CategoryFileInfoOperationExpression>::Get(), &allocator);
  }
  h.categories.PutCategories({}, list, {}, tov::types::CategoriesAction::AddUser);
}

// The application control task the module makes from `settings`.
zel::result_t CreateTask(const host::LoadedModule& module, SweepHost& h, tov::settings::AppControlSettings& settings,
                         zel::RefPtr<ITask>& task) {
  void* arguments[2] = {&h.locator, &settings};
  zel::IObject* object = nullptr;
  const zel::result_t r = module.CreateObject(tov::app_control::kAppControlTaskClassId, arguments, &object);
  if (r == 0) task = zel::RefPtr<ITask>::Adopt(static_cast<ITask*>(object));
  return r;
}

struct AppControlRun : Outcome {
  std::size_t published = 0;
  std::uint64_t sinkExceptions = 0;
};

// What a step of the task answers when `point` fails under it, and the line
// it traces then (null: none to look for).
struct AppControlExpectation {
  enum class Result { Fault, Succeeds, FaultOrSucceeds } result;
  const char* line;
};

AppControlExpectation ExpectedForAppControl(const std::string& step, FaultPoint point) {
  using R = AppControlExpectation::Result;
  struct Row {
    const char* steps;  // the steps it holds for, each followed by a space
    FaultPoint point;
    AppControlExpectation expected;
  };
  static const Row kTable[] = {
      // The settings conversion, at creation and on new settings.
      {"create settings ", FaultPoint::CategoriesGet, {R::Fault, "Cannot get categories"}},
      {"create settings ", FaultPoint::Alloc, {R::Fault, "Cannot convert settings"}},
      // A user that can't be resolved is dropped, silently.
      {"create settings ", FaultPoint::PwdbLookup, {R::Succeeds, nullptr}},
      // The settings dump of the entry trace can't be made: only the dump is lost.
      {"create settings ", FaultPoint::MetaInfoFind, {R::Succeeds, nullptr}},
      {"create settings ", FaultPoint::XmlStorageCreate, {R::Succeeds, nullptr}},
      {"create settings ", FaultPoint::StorageSerialize, {R::Succeeds, "serializer->Serialize(data, node, 0, 0)"}},
      // Services that are required fail the step; the tracer, the allocator
      // and the dump's serialiser are not.
      {"create settings ", FaultPoint::LocatorGetInterface, {R::FaultOrSucceeds, nullptr}},
      {"create ", FaultPoint::EngineCreateObject, {R::Fault, "Cannot create EAC task"}},
      // The service settings: trusted programs at creation, reputation at start.
      {"create start ", FaultPoint::SettingsGet, {R::Fault, "UpdateServiceSettings2 failed"}},
      {"create start ", FaultPoint::SettingsUpdate, {R::Fault, "UpdateServiceSettings2 failed"}},
      {"create start ", FaultPoint::SettingsFlush, {R::Fault, "FlushSettings failed"}},
      {"settings ", FaultPoint::EngineTaskSetSettings, {R::Fault, "modifier(&eacSettings)"}},
      {"start ", FaultPoint::LocatorGetInterface, {R::Fault, "Cannot get IServiceManager interface"}},
      {"start ", FaultPoint::EngineSubscribe, {R::Fault, "Cannot subscribe"}},
      {"start ", FaultPoint::EngineTaskStart, {R::Fault, "Cannot start EAC task"}},
      {"pause ", FaultPoint::EngineTaskPause, {R::Fault, "Cannot pause EAC task"}},
      {"resume ", FaultPoint::EngineTaskResume, {R::Fault, "Cannot resume EAC task"}},
      {"stop ", FaultPoint::EngineTaskStop, {R::Fault, "Cannot stop EAC task"}},
      // A failed unsubscription is never looked at.
      {"stop ", FaultPoint::EngineUnsubscribe, {R::Succeeds, nullptr}},
  };
  if (step == "events") {
    // Nothing a callback meets reaches the engine's verdict; a failed
    // publication is traced and its event lost.
    return {R::Succeeds, point == FaultPoint::PublisherPublish ? "Cannot publish event" : nullptr};
  }
  for (const Row& row : kTable) {
    const std::string steps = std::string(" ") + row.steps;
    if (row.point == point && steps.find(" " + step + " ") != std::string::npos) return row.expected;
  }
  ADD_FAILURE() << "no expectation for " << host::FaultPointName(point) << " in " << step;
  return {R::FaultOrSucceeds, nullptr};
}

TEST_F(FaultSweepTest, AppControlTaskLifecycle) {
  Sweep<AppControlRun>(
      "application control lifecycle", *module, 20,
      [&](host::CountingAllocator& allocator, std::uint64_t nth, AppControlRun& run) {
        const fs::path dir = MakePrograms("fault_sweep_ac");
        {
          SweepHost h(allocator, *module, dir);
          AddProgramCategories(h, allocator, dir);
          auto settings = AppControlSettings(tov::AppControlMode::AllowList);
          auto changed = AppControlSettings(tov::AppControlMode::DenyList);
          Board().FailNth(nth, kFault);

          zel::RefPtr<ITask> task;
          if (Step(run, "create", [&] { return CreateTask(*module, h, settings, task); }) == 0) {
            const zel::result_t started = Step(run, "start", [&] { return task->Start(1, nullptr); });
            Step(run, "settings", [&] {
              zel::RefPtr<tov::app_control::IAppControlTaskSettings> face;
              zel::result_t r = task->QueryInterface(tov::app_control::IAppControlTaskSettings::iid,
                                                     reinterpret_cast<void**>(face.Ref()));
              return r == 0 ? face->SetSettings(&changed) : r;
            });
            if (started == 0) {
              Step(run, "events", [&] {
                h.engine.publisher.Clear();
                for (const fs::path& program : {dir / "bin" / "script", dir / "other", dir / "bin" / "script"}) {
                  if (h.engine.engine.SubmitProgramStart({program.string(), 0, 0}) != 0) return zel::result::Unexpected;
                  if (!h.engine.engine.WaitIdleFor(std::chrono::seconds(10))) return zel::result::Unexpected;
                }
                run.published = h.engine.publisher.Count();
                run.sinkExceptions = h.engine.engine.SinkExceptions();
                return zel::result_t{0};
              });
              const zel::result_t paused = Step(run, "pause", [&] { return task->Pause(); });
              Step(run, "resume", [&] { return paused == 0 ? task->Resume() : zel::result_t{0}; });
              // A host whose Stop failed stops again: the task is stopped in the end.
              if (Step(run, "stop", [&] { return task->Stop(); }) != 0) task->Stop();
            }
          }
          Step(run, "release", [&] {
            task.Reset();
            return zel::result_t{0};
          });
          Board().Disarm();
          run.Collect(h.tracer);
        }
        fs::remove_all(dir);
      },
      [](const AppControlRun& run) {
        if (!run.fired) return;
        const FaultPoint p = *run.fired;
        const zel::result_t code = p == FaultPoint::Alloc ? zel::result::OutOfMemory : kFault;
        const AppControlExpectation expected = ExpectedForAppControl(run.step, p);
        using R = AppControlExpectation::Result;
        EXPECT_TRUE((run.result == code && expected.result != R::Succeeds) ||
                    (run.result == 0 && expected.result != R::Fault))
            << Hex(run.result) << " where " << (expected.result == R::Fault ? Hex(code) : "success")
            << " was expected";
        if (expected.line != nullptr) {
          EXPECT_TRUE(run.Traced(expected.line)) << "expected the line: " << expected.line;
        }
        EXPECT_EQ(run.sinkExceptions, 0u) << "no callback throws into the engine";
        if (run.step == "events") {
          EXPECT_EQ(run.published, p == FaultPoint::PublisherPublish ? 2u : 3u);
        } else if (run.step != "create" && run.step != "start" && run.result == 0) {
          EXPECT_EQ(run.published, 3u);
        }
      });
}

// (b) a full scan with GoldenImage add, then the inventory read back

constexpr int kPreviousFiles = 4;
constexpr int kNewFiles = 16;

struct ScanTrees {
  ScanTrees() : root(MakeTempDir("fault_sweep_tree")) {
    for (int i = 0; i < kPreviousFiles; ++i) {
      fs::create_directories(root / "previous");
      WriteFile(root / "previous" / ("old" + std::to_string(i) + ".sh"), "#!/bin/sh\necho old " + std::to_string(i));
    }
    for (int i = 0; i < kNewFiles; ++i) {
      const fs::path sub = root / "new" / ("d" + std::to_string(i % 3));
      fs::create_directories(sub);
      WriteFile(sub / ("f" + std::to_string(i) + ".sh"), "#!/bin/sh\necho new " + std::to_string(i));
    }
    WriteFile(root / "new" / "notes.txt", "not a program");
  }
  ~ScanTrees() { fs::remove_all(root); }
  std::set<std::string> Files(const char* tree) const {
    std::set<std::string> files;
    for (const auto& e : fs::recursive_directory_iterator(root / tree))
      if (e.is_regular_file()) files.insert(e.path().string());
    return files;
  }
  fs::path root;
};

// One whole scan of `root`; the stop notice's result, or nothing when the
// task did not start or no notice came.
std::optional<zel::result_t> Scan(SweepHost& h, const host::LoadedModule& module, const fs::path& root,
                                  zel::result_t* started) {
  auto task = CreateModuleObject<ITask>(module, &h.locator, tov::app_control::kInventoryScanTaskClassId, started);
  if (!task) return std::nullopt;
  zel::RefPtr<tov::app_control::IInventoryScanTaskConstruct> construct;
  *started = task->QueryInterface(tov::app_control::IInventoryScanTaskConstruct::iid,
                                  reinterpret_cast<void**>(construct.Ref()));
  if (*started != 0) return std::nullopt;
  tov::settings::InventoryScanSettings settings;
  settings.scanScopes[0].path = zel::string_t(root.string());
  settings.goldenImageAction = tov::settings::GoldenImageAction::Add;
  construct->Construct(&settings);
  const std::size_t before = h.engine.taskStops.Count();
  *started = task->Start(kScanSession, &h.engine.taskStops);
  if (*started != 0) return std::nullopt;
  // A notice that the host failed to take is not waited for: the worker
  // ends all the same, and Stop joins it.
  std::optional<zel::result_t> notice;
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  while (std::chrono::steady_clock::now() < deadline) {
    if (auto n = h.engine.taskStops.WaitFor(before + 1, std::chrono::milliseconds(5))) {
      notice = n->result;
      break;
    }
    if (Board().Fired() == FaultPoint::TaskStopped) break;
  }
  task->Stop();
  return notice;
}

// The inventory a fresh reader finds in the state file: the paths of its
// records, or the failure of reading them.
struct StoredInventory {
  zel::result_t result = 0;
  std::set<std::string> paths;
  std::size_t ids = 0;
};

StoredInventory ReadStored(const host::LoadedModule& module, const fs::path& dir) {
  StoredInventory stored;
  host::CountingAllocator allocator;
  {
    SweepHost reader(allocator, module, dir);
    auto storage = CreateModuleObject<tov::app_control::IInventoryStorage>(
        module, &reader.locator, tov::app_control::kInventoryStorageClassId, &stored.result);
    if (!storage) return stored;
    zel::RefPtr<tov::IInventoryInfoProvider> provider;
    storage->QueryInterface(tov::IInventoryInfoProvider::iid, reinterpret_cast<void**>(provider.Ref()));
    tov::ApplicationIdList ids;
    provider->GetApplicationIdList(0, 1000, ids);
    stored.ids = ids.size();
    tov::ApplicationList list;
    stored.result = provider->GetApplicationList(list);
    for (const auto& info : list.list) stored.paths.insert(N(info.filePath));
  }
  EXPECT_EQ(allocator.LiveBlocks(), 0);
  return stored;
}

struct ScanRun : Outcome {
  std::optional<zel::result_t> notice;
  zel::result_t started = 0;
  zel::result_t readBack = 0;
  std::size_t readCount = 0;
  StoredInventory stored;  // what a fresh reader finds in the state file after the run

  std::string Describe() const {
    return Outcome::Describe() + (notice ? " notice " + Hex(*notice) : " no notice") + " read " + Hex(readBack) +
           " " + std::to_string(readCount);
  }
};

// The lines the scan gives when `point` fails under `step`.
const char* ScanLine(const std::string& step, FaultPoint point) {
  static const std::map<std::pair<std::string, FaultPoint>, const char*> kLines{
      {{"scan", FaultPoint::TaskLockTry}, "Task start is locked by another concurrent action"},
      {{"scan", FaultPoint::TaskInfoGet}, "Cannot get task info by session id"},
      {{"scan", FaultPoint::FilesCreate}, "Cannot open file '"},
      {{"scan", FaultPoint::EngineInventoryModule}, "Cannot inventory "},
      {{"scan", FaultPoint::CategoriesPut}, "Cannot change GoldenImage category"},
      {{"read", FaultPoint::KvGetValue}, "LoadAppInfo(i, info)"},
  };
  const auto it = kLines.find({step, point});
  return it == kLines.end() ? nullptr : it->second;
}

TEST_F(FaultSweepTest, InventoryScanWithGoldenImageAndReadBack) {
  const ScanTrees trees;
  const std::set<std::string> previous = trees.Files("previous");
  const std::set<std::string> fresh = trees.Files("new");
  ASSERT_EQ(previous.size(), static_cast<std::size_t>(kPreviousFiles));
  ASSERT_EQ(fresh.size(), static_cast<std::size_t>(kNewFiles) + 1);
  const auto one = [&](host::CountingAllocator& allocator, std::uint64_t nth, ScanRun& run) {
    const std::string dir = MakeTempDir("fault_sweep_state");
    {
      SweepHost h(allocator, *module, dir);
      zel::result_t made = 0;
      auto storage = CreateModuleObject<tov::app_control::IInventoryStorage>(
          *module, &h.locator, tov::app_control::kInventoryStorageClassId, &made);
      ASSERT_TRUE(storage) << Hex(made);
      h.locator.Register<tov::app_control::IInventoryStorage>(storage.Get());
      // The inventory as it was before this run.
      zel::result_t seeded = 0;
      ASSERT_EQ(Scan(h, *module, trees.root / "previous", &seeded), std::optional<zel::result_t>(0)) << Hex(seeded);
      h.tracer.Clear();

      Board().FailNth(nth, kFault);
      Step(run, "scan", [&] {
        run.notice = Scan(h, *module, trees.root / "new", &run.started);
        return run.started;
      });
      Step(run, "read", [&] {
        zel::RefPtr<tov::IInventoryInfoProvider> provider;
        storage->QueryInterface(tov::IInventoryInfoProvider::iid, reinterpret_cast<void**>(provider.Ref()));
        tov::ApplicationList list;
        run.readBack = provider->GetApplicationList(list);
        run.readCount = list.list.size();
        return run.readBack;
      });
      Step(run, "release", [&] {
        h.locator.Remove(tov::app_control::IInventoryStorage::iid);
        storage.Reset();
        return zel::result_t{0};
      });
      Board().Disarm();
      run.Collect(h.tracer);
    }
    run.stored = ReadStored(*module, dir);
    fs::remove_all(dir);
  };
  const auto check = [&](const ScanRun& run) {
    const StoredInventory& stored = run.stored;
    if (!run.fired) {
      EXPECT_EQ(run.notice, std::optional<zel::result_t>(0));
      EXPECT_EQ(stored.result, 0);
      EXPECT_EQ(stored.paths, fresh);
      return;
    }
    const FaultPoint p = *run.fired;
    // The store: the previous inventory, or what this run stored, never a
    // mix. What the run stored is every new file, but for
    // - none, when the run failed after clearing the old inventory and
    //   before the walk;
    // - the one file that a fault in the walk cost;
    // - the rest of the tree, when an exception ended the walk (the run
    //   then reports the failure);
    // - a record that AddInfo could not write: its id stays listed, and the
    //   list then cannot be read whole.
    const bool recordLost = run.Traced("m_inventory->AddInfo(info)");
    const bool walkCut = run.Traced("InventoryScanTask::ProcessPath(const tov::NativePath&) ");
    const bool reportedFailure = !run.notice || *run.notice < 0 || run.started != 0;
    if (recordLost) {
      EXPECT_EQ(stored.ids, fresh.size());
      EXPECT_EQ(stored.result, zel::result::NotFound);
    } else if (stored.paths == previous) {
      EXPECT_EQ(stored.result, 0);
      EXPECT_TRUE(reportedFailure) << "the old inventory stands only when the run failed";
    } else {
      EXPECT_EQ(stored.result, 0);
      std::size_t missing = 0;
      for (const auto& path : fresh) missing += stored.paths.count(path) == 0;
      for (const auto& path : stored.paths) EXPECT_TRUE(fresh.count(path)) << path << " is no file of either tree";
      if (walkCut || stored.paths.empty()) {
        EXPECT_TRUE(reportedFailure) << "a cut walk is reported";
        EXPECT_EQ(run.step, "scan");
      } else if (missing == 1) {
        EXPECT_EQ(run.step, "scan");
        EXPECT_TRUE(run.Traced("OpenFile(path, io)") || run.Traced("Cannot inventory ") ||
                    run.Traced("Cannot lstat ") || run.Traced("Cannot open file '") ||
                    p == FaultPoint::FormatRecognizerCreate || p == FaultPoint::Alloc ||
                    p == FaultPoint::LocatorGetInterface)
            << "a file left out is traced";
      } else {
        EXPECT_EQ(missing, 0u);
      }
    }

    if (const char* line = ScanLine(run.step, p)) {
      EXPECT_TRUE(run.Traced(line)) << "expected the line: " << line;
    }
    if (run.step == "scan" && p == FaultPoint::TaskLockTry) {
      EXPECT_EQ(run.started, zel::result::UnspecifiedError);
    }
    if (run.step == "read" && !recordLost) {
      static const std::map<FaultPoint, std::set<zel::result_t>> kRead{
          {FaultPoint::SettingsGet, {0}},  // category names are only left out
          {FaultPoint::KvGetValue, {kFault}},
          {FaultPoint::StorageSerialize, {kFault}},
          {FaultPoint::Alloc, {zel::result::OutOfMemory}},
          {FaultPoint::XmlStorageCreate, {zel::result::InvalidArgument}},  // the serialiser fails on the missing node
          // Optional services, required ones, the node's factory.
          {FaultPoint::LocatorGetInterface, {0, kFault, zel::result::InvalidArgument}},
          {FaultPoint::MetaInfoFind, {0, kFault}},
      };
      const auto allowed = kRead.find(p);
      if (allowed == kRead.end()) ADD_FAILURE() << "no expectation for " << host::FaultPointName(p) << " in read";
      else EXPECT_TRUE(allowed->second.count(run.readBack)) << Hex(run.readBack);
    }
  };
  Sweep<ScanRun>("inventory scan and read back", *module, static_cast<std::uint64_t>(kNewFiles) * 2, one, check);
}

// (c) with no fault: program starts become their events, also while the
// host changes, pauses and stops the task

class ProgramStartTest : public FaultSweepTest {
 protected:
  // A started task on the settings above, with its settings face.
  void SetUp() override {
    dir = MakePrograms("app_control_e2e");
    h = std::make_unique<SweepHost>(allocator, *module, dir);
    AddProgramCategories(*h, allocator, dir);
    ASSERT_EQ(CreateTask(*module, *h, settings, task), 0);
    ASSERT_EQ(task->QueryInterface(tov::app_control::IAppControlTaskSettings::iid,
                                   reinterpret_cast<void**>(settingsFace.Ref())),
              0);
    ASSERT_EQ(task->Start(1, nullptr), 0);
  }
  void TearDown() override {
    settingsFace.Reset();
    task.Reset();
    h.reset();
    EXPECT_EQ(module->CanUnload(), 0) << "every module object is gone";
    fs::remove_all(dir);
    FaultSweepTest::TearDown();
  }

  // Starts `path` as `uid` and gives the event it caused, if any.
  std::vector<tov::RuntimeEvent> Run(const fs::path& path, std::uint32_t uid) {
    h->engine.publisher.Clear();
    EXPECT_EQ(h->engine.engine.SubmitProgramStart({path.string(), uid, 0}), 0);
    // A stuck engine fails the test instead of hanging it.
    EXPECT_TRUE(h->engine.engine.WaitIdleFor(std::chrono::seconds(10)));
    return h->engine.publisher.Events();
  }

  static std::u16string Field(const tov::RuntimeEvent& e, tov::FieldName name) {
    for (const auto& f : e.runtimeFields)
      if (f.name == static_cast<std::int32_t>(name) && f.data.IfWString()) return std::u16string(f.data.GetWString().view());
    return u"<absent>";
  }

  fs::path dir;
  host::CountingAllocator allocator;
  tov::settings::AppControlSettings settings = AppControlSettings(tov::AppControlMode::AllowList);
  std::unique_ptr<SweepHost> h;
  zel::RefPtr<ITask> task;
  zel::RefPtr<tov::app_control::IAppControlTaskSettings> settingsFace;
};

TEST_F(ProgramStartTest, ProgramStartsBecomeTheirEventsAlsoFromAnotherThreadWhileTheTaskChanges) {
  using Mode = tov::AppControlMode;
  using Enforcement = tov::AppControlEnforcement;
  const struct {
    const char* name;
    Mode mode;
    Enforcement enforcement;
    const char* program;
    std::uint32_t uid;
    int type, severity;
    const char16_t* category;  // with its rule's name; null: not looked at
    const char16_t* rule;
  } cases[] = {
      // Allow list: only what a rule allows for its user runs.
      {"allowed", Mode::AllowList, Enforcement::ApplyRules, "trusted", 0, 120, 4, u"Hashed", u"trusted by hash"},
      {"in no rule", Mode::AllowList, Enforcement::ApplyRules, "other", 0, 122, 0, nullptr, nullptr},
      {"a user the rule doesn't name", Mode::AllowList, Enforcement::ApplyRules, "trusted", 65534, 122, 0, nullptr,
       nullptr},
      // Deny list, tested first: the block would have happened, and the program ran.
      {"test mode", Mode::DenyList, Enforcement::TestRules, "bin/script", 0, 123, 4, u"Scripts", u"no scripts"},
      {"denied", Mode::DenyList, Enforcement::ApplyRules, "bin/script", 0, 122, 0, u"Scripts", u"no scripts"},
      {"in no deny rule", Mode::DenyList, Enforcement::ApplyRules, "other", 0, 120, 4, nullptr, nullptr},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    settings.mode = c.mode;
    settings.enforcement = c.enforcement;
    ASSERT_EQ(settingsFace->SetSettings(&settings), 0);
    const auto events = Run(dir / c.program, c.uid);
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0].eventType, c.type);
    EXPECT_EQ(events[0].severity, c.severity);
    EXPECT_EQ(events[0].subject.user->userId, c.uid);
    const std::string name = fs::path(c.program).filename().string();
    EXPECT_EQ(Field(events[0], tov::FieldName::FileName), std::u16string(name.begin(), name.end()));
    EXPECT_EQ(Field(events[0], tov::FieldName::TaskName), u"Application_Control");
    if (c.uid == 0) {
      EXPECT_EQ(Field(events[0], tov::FieldName::AccessUser), u"root");
    }
    if (c.category != nullptr) {
      EXPECT_EQ(Field(events[0], tov::FieldName::Category), c.category);
      EXPECT_EQ(Field(events[0], tov::FieldName::VendorCategory), c.rule);
    }
  }

  // Then starts arrive from another thread the whole time the host changes
  // the settings, pauses, resumes and stops the task: each start is taken or
  // refused as not ready, each event published is a whole decision, and
  // nothing of the task is left once it is released.
  h->engine.publisher.Clear();
  const std::int64_t blocksBefore = allocator.LiveBlocks();  // the categories' own

  std::atomic<bool> done{false};
  std::atomic<int> taken{0}, notReady{0}, other{0};
  std::thread starter([&] {
    const fs::path programs[] = {dir / "trusted", dir / "other", dir / "bin" / "script"};
    for (int i = 0; !done.load() && i < 200000; ++i) {
      const zel::result_t r = h->engine.engine.SubmitProgramStart({programs[i % 3].string(), 0, 0});
      ++(r == 0 ? taken : r == zel::result::NotReady ? notReady : other);
      if (i % 16 == 0) std::this_thread::sleep_for(std::chrono::microseconds(50));
    }
  });
  for (int round = 0; round < 20; ++round) {
    settings.enforcement =
        round % 2 == 0 ? tov::AppControlEnforcement::TestRules : tov::AppControlEnforcement::ApplyRules;
    EXPECT_EQ(settingsFace->SetSettings(&settings), 0);
    EXPECT_EQ(task->Pause(), 0);
    EXPECT_EQ(task->Resume(), 0);
  }
  // Let some starts through a running task before it stops.
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (h->engine.publisher.Events().size() < 10 && std::chrono::steady_clock::now() < deadline)
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  settingsFace.Reset();
  EXPECT_EQ(task->Stop(), 0);
  EXPECT_EQ(h->engine.engine.Subscribers(), 0u);
  const int takenAtStop = taken.load();
  while (notReady.load() == 0 && std::chrono::steady_clock::now() < deadline)
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  done = true;
  starter.join();
  EXPECT_TRUE(h->engine.engine.WaitIdleFor(std::chrono::seconds(10)));
  EXPECT_EQ(h->engine.engine.SubmitProgramStart({(dir / "other").string(), 0, 0}), zel::result::NotReady)
      << "a stopped engine task decides nothing";

  EXPECT_EQ(other.load(), 0);
  EXPECT_GT(notReady.load(), 0) << "starts after the stop are refused";
  EXPECT_LE(taken.load() - takenAtStop, 1) << "at most the start under way as the task stopped";
  const auto events = h->engine.publisher.Events();
  EXPECT_GE(events.size(), 10u);
  EXPECT_LE(events.size(), static_cast<std::size_t>(taken.load())) << "an event without a start";
  for (const auto& e : events) {
    EXPECT_TRUE(e.eventType >= 120 && e.eventType <= 123) << e.eventType;
    EXPECT_NE(Field(e, tov::FieldName::FileName), u"<absent>");
  }
  task.Reset();
  EXPECT_EQ(allocator.LiveBlocks(), blocksBefore);
}

}  // namespace
