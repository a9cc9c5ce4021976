// The reference engine end to end: task creation through the creator,
// settings hand-over, delivery of decisions to subscribers on the engine
// thread, and the services in a locator.
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <thread>

#include "app_control/interfaces/iengine_task_settings.h"
#include "engine_test_support.h"
#include "host/engine/engine_services.h"

namespace {

using namespace engine_test;
using app_core::task_manager::task::ITask;
using app_ctrl::EnginePrincipal;

// Far beyond any healthy delivery; reached only when the engine is stuck.
constexpr std::chrono::seconds kIdleTimeout{10};

app_ctrl::EnterpriseApplicationControlSettings BlockToolsSettings() {
  app_ctrl::EnterpriseApplicationControlSettings s;
  s.rules.push_back(Rule(1, app_ctrl::engine_rule_status::On,
                         {{EnginePrincipal::kEveryone, EnginePrincipal::kEveryoneId, app_ctrl::engine_access::Block}},
                         "Block tools"));
  return s;
}

class EngineTest : public ::testing::Test {
 protected:
  EngineTest() {
    host::engine::CategoryList categories;
    categories.push_back(MakeCategory(1, "Tools", {FileInfo(app_ctrl::CategoryFileInfoField::FileName,
                                                            app_ctrl::CategoryStringOperation::Equal, "tool")}));
    services.engine.SetCategories(std::move(categories));
    tool = dir.Write("tool", "hello");
    other = dir.Write("other", "world");
  }

  zel::RefPtr<ITask> CreateTask(const app_ctrl::EnterpriseApplicationControlSettings& settings) {
    EngineObjectParameters holder{&settings, app_ctrl::kEacSettingsSerId, nullptr};
    void* out = nullptr;
    EXPECT_EQ(services.creator.CreateObject(app_ctrl::kEacTaskClassId, ITask::iid, nullptr, &holder, 0, &out), 0);
    return zel::RefPtr<ITask>::Adopt(static_cast<ITask*>(out));
  }

  ScratchDir dir;
  std::string tool, other;
  host::EngineServices services;
  RecordingSink sink;
};

TEST_F(EngineTest, CreatorChecksClassAndHolder) {
  const auto settings = BlockToolsSettings();
  EngineObjectParameters holder{&settings, app_ctrl::kEacSettingsSerId, nullptr};
  void* out = reinterpret_cast<void*>(1);
  EXPECT_EQ(services.creator.CreateObject(0x12345678, ITask::iid, nullptr, &holder, 0, &out),
            zel::result::ClassNotFound);
  EXPECT_EQ(out, nullptr);
  EngineObjectParameters wrongType{&settings, 0x471C26B1 /* the product settings: a wrong type */, nullptr};
  EXPECT_EQ(services.creator.CreateObject(app_ctrl::kEacTaskClassId, ITask::iid, nullptr, &wrongType, 0, &out),
            zel::result::WrongSettingsType);
  EXPECT_EQ(services.creator.CreateObject(app_ctrl::kEacTaskClassId, ITask::iid, nullptr, nullptr, 0, &out),
            zel::result::SettingsAreRequired);
  EXPECT_EQ(services.creator.CreateObject(app_ctrl::kEacTaskClassId, 0x0BADF00D, nullptr, &holder, 0, &out),
            zel::result::InterfaceNotSupported);
  EXPECT_EQ(services.engine.LiveTasks(), 0u);  // the task refused by its iid is gone again
}

TEST_F(EngineTest, TaskHoldsACopyOfItsRulesAndTakesNewOnes) {
  auto settings = BlockToolsSettings();
  zel::RefPtr<ITask> task = CreateTask(settings);
  ASSERT_TRUE(task);
  settings.rules.clear();  // the caller's record is not the task's
  auto held = services.engine.SettingsOf(task.Get());
  ASSERT_TRUE(held);
  ASSERT_EQ(held->rules.size(), 1u);
  EXPECT_EQ(held->rules[0].ruleName.view(), u"Block tools");

  zel::RefPtr<app_ctrl::ISettings> settingsFace;
  ASSERT_EQ(task->QueryInterface(app_ctrl::ISettings::iid, reinterpret_cast<void**>(settingsFace.Ref())), 0);
  app_ctrl::EnterpriseApplicationControlSettings replacement;
  replacement.allowListMode = true;
  ASSERT_EQ(settingsFace->SetSettings(&replacement), 0);
  EXPECT_TRUE(services.engine.SettingsOf(settingsFace.Get())->allowListMode);
  EXPECT_TRUE(services.engine.SettingsOf(task.Get())->rules.empty());

  settingsFace.Reset();
  task.Reset();
  EXPECT_EQ(services.engine.LiveTasks(), 0u);
}

TEST_F(EngineTest, DeliversDecisionsOnTheEngineThreadToEverySinkEvenPastOneThatThrows) {
  RecordingSink thrower;
  thrower.m_throw = true;
  ASSERT_EQ(services.engine.Subscribe(&thrower), 0);
  ASSERT_EQ(services.engine.Subscribe(&sink), 0);
  zel::RefPtr<ITask> task = CreateTask(BlockToolsSettings());
  ASSERT_EQ(services.engine.SubmitProgramStart({tool, 0, 0}), zel::result::NotReady);
  ASSERT_EQ(task->Start(1, nullptr), 0);
  EXPECT_EQ(task->Start(1, nullptr), 1);  // already running

  ASSERT_EQ(services.engine.SubmitProgramStart({tool, 0, static_cast<std::uint32_t>(::getpid())}), 0);
  ASSERT_EQ(services.engine.SubmitProgramStart({other, 0, 0}), 0);
  services.engine.SubmitFailSafeModeBoot();
  services.engine.SubmitOfflineHistoryLost();
  ASSERT_TRUE(services.engine.WaitIdleFor(kIdleTimeout));
  EXPECT_EQ(thrower.Calls().size(), 2u);
  EXPECT_EQ(services.engine.SinkExceptions(), 2u);
  EXPECT_EQ(sink.m_failSafe.load(), 1);
  EXPECT_EQ(sink.m_historyLost.load(), 1);

  const auto calls = sink.Calls();
  ASSERT_EQ(calls.size(), 2u);
  EXPECT_EQ(calls[0].thread, services.engine.ThreadId());
  EXPECT_NE(calls[0].thread, std::this_thread::get_id());
  EXPECT_EQ(calls[0].verdict, 2);
  EXPECT_EQ(calls[0].info.fileName.view(), u"tool");
  EXPECT_EQ(calls[0].info.fileHash.view(), u"2cf24dba5fb0a30e26e83b2ac5b9e29e1b161e5c1fa7425e73043362938b9824");
  EXPECT_EQ(calls[0].info.moduleId, 0x2cf24dba5fb0a30eull);
  EXPECT_EQ(calls[0].info.userName.view(), u"root");
  EXPECT_EQ(calls[0].info.userId.view(), u"0");
  std::uint64_t self = 0;
  ASSERT_EQ(services.processes.GetUniqueId(static_cast<std::uint32_t>(::getpid()), &self), 0);
  EXPECT_EQ(calls[0].info.processUniqueId, self);
  EXPECT_EQ(calls[0].category.categoryName.view(), u"Tools");
  EXPECT_EQ(calls[0].category.productCategoryName.view(), u"Block tools");
  EXPECT_EQ(calls[1].verdict, 1);
  EXPECT_TRUE(calls[1].category.categoryName.empty());

  // Reported by hand, the first failure comes back, and every sink is told:
  // the publisher counts a decision some sink didn't take.
  const host::engine::ProgramDecision decision = services.engine.Decisions().front();
  EXPECT_EQ(services.engine.Report(decision), zel::result::Unexpected) << "a throw";
  RecordingSink refuser;
  refuser.m_result = zel::result::AccessDenied;
  ASSERT_EQ(services.engine.Unsubscribe(&thrower), 0);
  ASSERT_EQ(services.engine.Subscribe(&refuser), 0);
  EXPECT_EQ(services.engine.Report(decision), zel::result::AccessDenied);
  EXPECT_EQ(sink.Calls().size(), 4u);
  ASSERT_EQ(services.engine.Unsubscribe(&refuser), 0);
  EXPECT_EQ(services.engine.Report(decision), 0);

  // Paused: nothing is decided; resumed: decisions again.
  ASSERT_EQ(task->Pause(), 0);
  EXPECT_LT(services.engine.SubmitProgramStart({tool, 0, 0}), 0);
  ASSERT_EQ(task->Resume(), 0);

  ASSERT_EQ(services.engine.Unsubscribe(&sink), 0);
  EXPECT_EQ(services.engine.Unsubscribe(&sink), zel::result::NotFound);
  ASSERT_EQ(services.engine.SubmitProgramStart({tool, 0, 0}), 0);
  ASSERT_TRUE(services.engine.WaitIdleFor(kIdleTimeout));
  EXPECT_EQ(sink.Calls().size(), 5u);
  EXPECT_EQ(services.engine.Decisions().size(), 3u);
  for (RecordingSink* s : {&sink, &thrower, &refuser}) EXPECT_EQ(s->OutstandingRefs(), 0);  // the engine let go

  // A second task cannot start while the first one runs.
  EXPECT_EQ(CreateTask(BlockToolsSettings())->Start(2, nullptr), zel::result::InvalidState);
  ASSERT_EQ(task->Stop(), 0);
  EXPECT_FALSE(services.engine.IsStarted());
  EXPECT_EQ(task->Stop(), 1);  // nothing left to stop
  EXPECT_EQ(task->Start(1, nullptr), 0) << "a stopped task starts again";
  EXPECT_EQ(task->Stop(), 0);
}

TEST_F(EngineTest, ServicesThroughTheLocator) {
  host::ServiceLocator locator;
  host::RegisterEngineServices(locator, services);

  const zel::iid_t ids[] = {app_ctrl::IEnterpriseApplicationControlEvents2Subscription::iid,
                            IEngineObjectCreator::iid, ITaskRegistry::iid, IProcessRegistry::iid,
                            tov::INonRemoteEventPublisher::iid, app_ctrl::IEnterpriseApplicationController::iid,
                            ITaskTryMutex::iid, ITaskInfoProvider::iid, ICgroupsManager::iid,
                            app_core::task_manager::task::ITaskStopEvents::iid};
  for (zel::iid_t iid : ids) {
    zel::RefPtr<zel::IObject> face;
    EXPECT_EQ(locator.GetInterface(iid, 0, reinterpret_cast<void**>(face.Ref())), 0) << std::hex << iid;
  }

  zel::RefPtr<ITaskRegistry> registry;
  ASSERT_EQ(zel::GetInterface(&locator, registry.Ref()), 0);
  TaskDescription d;
  TaskRegistryCredentials credentials{0, zel::wstring_t(u"root"), 2, -1, 1};
  ASSERT_EQ(registry->GetTaskByName(zel::wstring_t(u"Application_Control"), &d, credentials), 0);
  EXPECT_EQ(d.taskId, 21u);
  EXPECT_EQ(d.taskType.view(), u"AppControl");
  EXPECT_EQ(services.tasks.LastCredentials()->userName.view(), u"root");
  EXPECT_EQ(registry->GetTaskByName(zel::wstring_t(u"application_control"), &d, credentials),
            zel::result::NotFound);
  EXPECT_EQ(registry->GetTaskById(21, &d, credentials), 0);
  registry.Reset();

  host::UnregisterEngineServices(locator);
  EXPECT_EQ(services.engine.OutstandingRefs(), 0);
  EXPECT_EQ(services.publisher.OutstandingRefs(), 0);
  EXPECT_EQ(services.creator.OutstandingRefs(), 0);
  EXPECT_EQ(services.tasks.OutstandingRefs(), 0);
  EXPECT_EQ(services.processes.OutstandingRefs(), 1);  // the engine's own reference
}

}  // namespace
