// Application control from the host's side: the built module loaded with
// dlopen, the reference engine and host services, product settings with a
// category by hash and one by path glob, and program starts whose published
// events are checked one by one.
#include <gtest/gtest.h>

#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "app_control/interfaces/iapp_control_task_settings.h"
#include "app_control/interfaces/itask.h"
#include "tov_common/settings/app_control_settings.h"
#include "host/engine/engine_services.h"
#include "host/engine/file_facts.h"
#include "host/module/module_loader.h"
#include "host/services/collecting_tracer.h"
#include "host/services/counting_allocator.h"
#include "host/services/pwdb.h"
#include "support/fake_engine_services.h"
#include "support/fake_settings_services.h"
#include "tests/tov_common/categories/category_meta_info.h"

namespace {

using app_core::task_manager::task::ITask;
namespace fs = std::filesystem;

constexpr app_ctrl::CategoryId kHashed{{0x11}};
constexpr app_ctrl::CategoryId kScripts{{0x22}};

zel::wstring_t W(const std::string& s) { return zel::wstring_t(std::u16string(s.begin(), s.end())); }

class AppControlE2eTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char pattern[] = "/tmp/app_control_e2e_XXXXXX";
    ASSERT_NE(::mkdtemp(pattern), nullptr);
    dir = pattern;
    fs::create_directories(dir / "bin");
    std::ofstream(dir / "trusted") << "trusted program";
    std::ofstream(dir / "other") << "another program";
    std::ofstream(dir / "bin" / "script") << "#!/bin/sh";
    std::string sha;
    ASSERT_EQ(host::engine::Sha256File((dir / "trusted").string(), &sha), 0);

    AddCategory(kHashed, u"Hashed", app_ctrl::CategoryFileInfoField::FileSha256Hash,
                app_ctrl::CategoryStringOperation::Equal, W(sha));
    AddCategory(kScripts, u"Scripts", app_ctrl::CategoryFileInfoField::FilePath, app_ctrl::CategoryStringOperation::Like,
                W((dir / "bin").string() + "/*"));

    locator.Register<zel::IAllocator>(&allocator);
    locator.Register<zel::ITracer>(&tracer);
    locator.Register<ICategoriesManager>(&categories);
    locator.Register<IPwdb>(&pwdb);
    locator.Register<app_core::facade::IServiceManager>(&serviceManager);
    host::RegisterEngineServices(locator, services);
  }

  void TearDown() override {
    settingsFace.Reset();
    task.Reset();
    host::UnregisterEngineServices(locator);
    for (zel::iid_t iid : {ICategoriesManager::iid, IPwdb::iid, app_core::facade::IServiceManager::iid}) {
      locator.Remove(iid);
    }
    EXPECT_EQ(module.CanUnload(), 0) << "every module object is gone";
    fs::remove_all(dir);
  }

  void AddCategory(const app_ctrl::CategoryId& id, std::u16string_view name, app_ctrl::CategoryFileInfoField field,
                   app_ctrl::CategoryStringOperation op, zel::wstring_t value) {
    categories.Add(id, name);
    const app_ctrl::CategoryFileInfoOperationExpression e(field, op, std::move(value));
    categories.categories.back().Include.emplace_back().expression.assign_copy(
        &e, category_test::Described<app_ctrl::CategoryFileInfoOperationExpression>::Get(), &allocator);
  }

  static tov::settings::AppControlRule Rule(std::u16string_view name, std::u16string_view category,
                                            tov::UserAccess access) {
    tov::settings::AppControlRule rule;
    rule.ruleName = zel::wstring_t(name);
    rule.categoryName = zel::wstring_t(category);
    auto& user = rule.users.emplace_back();
    user.userName = zel::wstring_t(u"root");
    user.access = access;
    return rule;
  }

  // Starts `path` as `uid` and gives the event it caused, if any.
  std::vector<tov::RuntimeEvent> Run(const fs::path& path, std::uint32_t uid) {
    services.publisher.Clear();
    EXPECT_EQ(services.engine.SubmitProgramStart({path.string(), uid, 0}), 0);
    // A stuck engine fails the test instead of hanging it.
    EXPECT_TRUE(services.engine.WaitIdleFor(std::chrono::seconds(10)));
    return services.publisher.Events();
  }

  static std::u16string Field(const tov::RuntimeEvent& e, tov::FieldName name) {
    for (const auto& f : e.runtimeFields)
      if (f.name == static_cast<std::int32_t>(name) && f.data.IfWString()) return std::u16string(f.data.GetWString().view());
    return u"<absent>";
  }

  // The task made by the module from `settings`, with its settings face.
  void CreateTask(tov::settings::AppControlSettings& settings) {
    void* arguments[2] = {&locator, &settings};
    zel::IObject* object = nullptr;
    ASSERT_EQ(module.CreateObject(0x46DFCF43, arguments, &object), 0);
    task = zel::RefPtr<ITask>::Adopt(static_cast<ITask*>(object));
    ASSERT_EQ(task->QueryInterface(tov::app_control::IAppControlTaskSettings::iid,
                                   reinterpret_cast<void**>(settingsFace.Ref())),
              0);
  }

  fs::path dir;
  host::LoadedModule module{AC_MODULE_PATH};
  host::CountingAllocator allocator;
  host::CollectingTracer tracer;
  testsupport::FakeCategoriesManager categories;
  host::Pwdb pwdb;
  testsupport::CallJournal journal;
  testsupport::FakeServiceManager serviceManager{journal};
  host::EngineServices services;
  host::ServiceLocator locator;
  zel::RefPtr<ITask> task;
  zel::RefPtr<tov::app_control::IAppControlTaskSettings> settingsFace;
};

TEST_F(AppControlE2eTest, ProgramStartsBecomeTheirEvents) {
  tov::settings::AppControlSettings settings;
  settings.allowListRules.push_back(Rule(u"trusted by hash", u"Hashed", tov::UserAccess::Allow));
  settings.denyListRules.push_back(Rule(u"no scripts", u"Scripts", tov::UserAccess::Block));
  CreateTask(settings);
  ASSERT_TRUE(task);
  ASSERT_EQ(task->Start(1, nullptr), 0);
  ASSERT_TRUE(serviceManager.controller);
  EXPECT_FALSE(serviceManager.controller->useCloudReputation);

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

  settingsFace.Reset();
  ASSERT_EQ(task->Stop(), 0);
  EXPECT_EQ(services.engine.Subscribers(), 0u);
  EXPECT_EQ(services.engine.SubmitProgramStart({(dir / "other").string(), 0, 0}), zel::result::NotReady)
      << "a stopped engine task decides nothing";
}

// Program starts arrive from another thread the whole time the host changes
// the settings, pauses, resumes and stops the task: each start is taken or
// refused as not ready, each event published is a whole decision, and
// nothing of the task is left once it is released.
TEST_F(AppControlE2eTest, StartsFromAnotherThreadDuringSettingsPauseAndStop) {
  tov::settings::AppControlSettings settings;
  settings.mode = tov::AppControlMode::AllowList;
  settings.enforcement = tov::AppControlEnforcement::ApplyRules;
  settings.allowListRules.push_back(Rule(u"trusted by hash", u"Hashed", tov::UserAccess::Allow));
  CreateTask(settings);
  ASSERT_TRUE(settingsFace);
  ASSERT_EQ(task->Start(1, nullptr), 0);
  services.publisher.Clear();
  const std::int64_t blocksBefore = allocator.LiveBlocks();  // the categories' own

  std::atomic<bool> done{false};
  std::atomic<int> taken{0}, notReady{0}, other{0};
  std::thread starter([&] {
    const fs::path programs[] = {dir / "trusted", dir / "other", dir / "bin" / "script"};
    for (int i = 0; !done.load() && i < 200000; ++i) {
      const zel::result_t r = services.engine.SubmitProgramStart({programs[i % 3].string(), 0, 0});
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
  while (services.publisher.Events().size() < 10 && std::chrono::steady_clock::now() < deadline)
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  settingsFace.Reset();
  EXPECT_EQ(task->Stop(), 0);
  const int takenAtStop = taken.load();
  while (notReady.load() == 0 && std::chrono::steady_clock::now() < deadline)
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  done = true;
  starter.join();
  EXPECT_TRUE(services.engine.WaitIdleFor(std::chrono::seconds(10)));

  EXPECT_EQ(other.load(), 0);
  EXPECT_GT(notReady.load(), 0) << "starts after the stop are refused";
  EXPECT_LE(taken.load() - takenAtStop, 1) << "at most the start under way as the task stopped";
  const auto events = services.publisher.Events();
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
