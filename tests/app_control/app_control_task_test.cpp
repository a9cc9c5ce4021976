// The application control task end to end within the module: creation
// through the module's entry point against fake engine and host services,
// the order of Start and Stop and their unwinding, settings reaching the
// engine task, and the events made of engine verdicts.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <stdexcept>
#include <string>
#include <vector>

#include "app_control/app_control_task.h"
#include "app_control/module_entry.h"
#include "host/services/event_publisher.h"
#include "host/services/task_registry.h"
#include "support/app_control_task_services.h"
#include "app_control/module_fixture.h"

namespace {

namespace ac = tov::app_control;
using app_core::task_manager::task::ITask;
using testing::ElementsAre;

constexpr zel::result_t kFailure = zel::result::UnspecifiedError;
constexpr app_ctrl::CategoryId kBrowsers{{1, 2, 3, 4}};

// The host's services and a publisher, a base ahead of the module fixture: its
// locator lets go of them before they go.
struct TaskHost : testsupport::AppControlTaskServices {
  host::EventPublisher publisher;
};

class AppControlTaskTest : public TaskHost, public testsupport::ModuleFixture {
 protected:
  void SetUp() override {
    ModuleFixture::SetUp();
    RegisterWith(locator, &publisher);
    categories.Add(kBrowsers, u"Browsers");
    pwdb.users["root"] = 0;
    settings.mode = tov::AppControlMode::AllowList;
    settings.enforcement = tov::AppControlEnforcement::ApplyRules;
    auto& rule = settings.allowListRules.emplace_back();
    rule.ruleName = zel::wstring_t(u"browsers for root");
    rule.categoryName = zel::wstring_t(u"Browsers");
    rule.users.emplace_back().userName = zel::wstring_t(u"root");
  }

  void TearDown() override {
    task.Reset();
    publisher.Clear();  // kept events hold the module's memory, and so the module
    EXPECT_EQ(zel::ModuleLockCount.load(), lockCountBefore);
    EXPECT_EQ(engineTask.ExtraRefs(), 0);
    EXPECT_EQ(subscription.ExtraRefs(), 1) << "the locator's own";
    EXPECT_EQ(publisher.OutstandingRefs(), 1) << "the locator's own";
    EXPECT_EQ(processes.ObjectRefs(), 0);
  }

  zel::result_t Create() {
    void* arguments[2] = {&locator, &settings};
    zel::IObject* object = nullptr;
    const zel::result_t r = ac::CreateObject(ac::kAppControlTaskClassId, arguments, &object);
    if (r >= 0) task = zel::RefPtr<ITask>::Adopt(static_cast<ITask*>(object));
    return r;
  }
  ac::AppControlTask& Task() { return *static_cast<ac::AppControlTask*>(task.Get()); }
  ac::IAppControlTaskSettings* SettingsFace() { return static_cast<ac::IAppControlTaskSettings*>(&Task()); }

 public:  // the case tables arrange through these
  void RefuseSubscription() {
    locator.Refuse(app_ctrl::IEnterpriseApplicationControlEvents2Subscription::iid, kFailure);
  }
  tov::settings::AppControlSettings settings;
  zel::RefPtr<ITask> task;
};

// ---- construction ------------------------------------------------------------------

TEST_F(AppControlTaskTest, ConstructionCreatesTheEngineTaskFromConvertedSettings) {
  ASSERT_EQ(Create(), 0);
  EXPECT_EQ(creator.lastClassId, 0xCDACDD96u);
  EXPECT_EQ(creator.lastIid, ITask::iid);
  EXPECT_EQ(creator.lastSerId, 0x0A34F473u);
  ASSERT_TRUE(creator.created);
  EXPECT_TRUE(creator.created->allowListMode);
  EXPECT_EQ(creator.created->testMode, 0u);
  ASSERT_EQ(creator.created->rules.size(), 1u);
  EXPECT_EQ(creator.created->rules[0].categoryId, kBrowsers);
  // Engine task first, then the trusted programs (none installed here: read, nothing written).
  EXPECT_THAT(journal.Take(), ElementsAre("creator.CreateObject", "ssm.Read:exclusions"));
  EXPECT_EQ(engineTask.ExtraRefs(), 1);
  EXPECT_TRUE(Traced("AppControlTask::AppControlTask() "));
  // Interface table: 0 and ITask at the object's start, then the settings face.
  void* out = nullptr;
  ASSERT_EQ(task->QueryInterface(0, &out), 0);
  EXPECT_EQ(out, task.Get());
  static_cast<ITask*>(out)->Release();
  ASSERT_EQ(task->QueryInterface(ac::IAppControlTaskSettings::iid, &out), 0);
  EXPECT_EQ(out, SettingsFace());
  SettingsFace()->Release();
}

TEST_F(AppControlTaskTest, EachFailedConstructionStepFailsItAndReleasesWhatItHeld) {
  struct Case {
    const char* name;
    void (*arrange)(AppControlTaskTest&);
    std::vector<std::string> calls;
    std::vector<const char*> lines;
  };
  const Case cases[] = {
      {"engine task refused", [](AppControlTaskTest& t) { t.creator.failWith = kFailure; }, {"creator.CreateObject"},
       {"Cannot create EAC task", "Cannot apply settings"}},
      {"trusted programs unwritable", [](AppControlTaskTest& t) { t.serviceManager.failRead = kFailure; },
       {"creator.CreateObject", "ssm.Read:exclusions"}, {"UpdateServiceSettings2 failed", "Cannot add trusted programs"}},
      {"no subscription service", [](AppControlTaskTest& t) { t.RefuseSubscription(); }, {}, {}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    c.arrange(*this);
    EXPECT_EQ(Create(), kFailure);
    EXPECT_EQ(journal.Take(), c.calls);
    for (const char* line : c.lines) EXPECT_TRUE(Traced(line)) << line;
    EXPECT_EQ(engineTask.ExtraRefs(), 0);
    EXPECT_EQ(zel::ModuleLockCount.load(), lockCountBefore);
    creator.failWith = 0;
    serviceManager.failRead = 0;
  }
}

// ---- Start and Stop ------------------------------------------------------------------

TEST_F(AppControlTaskTest, StartTurnsReputationOffSubscribesThenStartsTheEngineAndTheRestFollows) {
  ASSERT_EQ(Create(), 0);
  journal.Take();
  ASSERT_EQ(task->Start(7, nullptr), 0);
  EXPECT_THAT(journal.Take(), ElementsAre("ssm.Read:controller", "ssm.Write:controller", "ssm.Flush", "Subscribe",
                                          "engine.Start"));
  ASSERT_TRUE(serviceManager.controller);
  EXPECT_FALSE(serviceManager.controller->useCloudReputation);
  EXPECT_TRUE(serviceManager.controller->reportUnknownModules) << "the rest is written back as read";
  EXPECT_EQ(engineTask.lastSessionId, 7u);

  ASSERT_EQ(task->Stop(), 0);
  EXPECT_THAT(journal.Take(), ElementsAre("engine.Stop", "Unsubscribe"));
  // A second start finds the flag off and writes nothing; a positive engine
  // answer is a success and keeps the subscription.
  engineTask.startResult = 1;
  ASSERT_EQ(task->Start(8, nullptr), 0);
  EXPECT_THAT(journal.Take(), ElementsAre("ssm.Read:controller", "Subscribe", "engine.Start"));

  // Pause, resume and stop go to the engine; a failed stop keeps the
  // subscription until a stop succeeds.
  EXPECT_EQ(task->Pause(), 0);
  EXPECT_EQ(task->Resume(), 0);
  engineTask.pauseResult = kFailure;
  engineTask.resumeResult = 2;
  EXPECT_EQ(task->Pause(), kFailure);
  EXPECT_EQ(task->Resume(), 0);
  EXPECT_TRUE(Traced("Cannot pause EAC task"));
  engineTask.stopResult = kFailure;
  EXPECT_EQ(task->Stop(), kFailure);
  EXPECT_THAT(journal.Take(),
              ElementsAre("engine.Pause", "engine.Resume", "engine.Pause", "engine.Resume", "engine.Stop"));
  EXPECT_TRUE(Traced("(m_pdkTask->Stop()),(ZEL_SUCCEEDED(_result)) failed: result = 0x8000004b (Unspecified error)"
                     "Cannot stop EAC task"));
  EXPECT_EQ(subscription.sinks.size(), 1u);
  engineTask.stopResult = 1;
  EXPECT_EQ(task->Stop(), 0);
  EXPECT_THAT(journal.Take(), ElementsAre("engine.Stop", "Unsubscribe"));
}

TEST_F(AppControlTaskTest, StartUnwindsInReverseOrder) {
  struct Case {
    const char* name;
    void (*arrange)(AppControlTaskTest&);
    zel::result_t expected;
    std::vector<std::string> calls;
    const char* line;
  };
  const Case cases[] = {
      {"reputation update fails", [](AppControlTaskTest& t) { t.serviceManager.failRead = kFailure; }, kFailure,
       {"ssm.Read:controller"}, "AppControlTask::app_control/app_control_task.cpp:"},
      {"subscribe fails", [](AppControlTaskTest& t) { t.subscription.subscribeResult = kFailure; }, kFailure,
       {"ssm.Read:controller", "ssm.Write:controller", "ssm.Flush", "Subscribe"}, "Cannot subscribe"},
      {"engine refuses", [](AppControlTaskTest& t) { t.engineTask.startResult = kFailure; }, kFailure,
       {"ssm.Read:controller", "ssm.Write:controller", "ssm.Flush", "Subscribe", "engine.Start", "Unsubscribe"},
       "AppControlTaskCallbacks::app_control/app_control_task.cpp:"},
      {"engine throws", [](AppControlTaskTest& t) { t.engineTask.throwOnStart = true; },
       zel::result::ExceptionHasNoResultCode,
       {"ssm.Read:controller", "ssm.Write:controller", "ssm.Flush", "Subscribe", "engine.Start", "Unsubscribe"},
       "engine start threw"},
  };
  ASSERT_EQ(Create(), 0);
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    journal.Take();
    tracer.Clear();
    serviceManager.controller.reset();  // the reputation flag is on again
    c.arrange(*this);
    EXPECT_EQ(task->Start(1, nullptr), c.expected);
    EXPECT_EQ(journal.Take(), c.calls);
    EXPECT_TRUE(Traced(c.line));
    EXPECT_TRUE(subscription.sinks.empty());
    engineTask.startResult = 0;
    engineTask.throwOnStart = false;
    subscription.subscribeResult = 0;
  }
}

// ---- settings ------------------------------------------------------------------------

TEST_F(AppControlTaskTest, NewSettingsReachTheRunningEngineTask) {
  ASSERT_EQ(Create(), 0);
  settings.mode = tov::AppControlMode::DenyList;
  settings.enforcement = tov::AppControlEnforcement::TestRules;
  settings.denyListRules = settings.allowListRules;
  settings.denyListRules.emplace_back().categoryName = zel::wstring_t(u"Unknown");
  EXPECT_EQ(SettingsFace()->SetSettings(&settings), 0);
  ASSERT_TRUE(engineTask.received);
  EXPECT_FALSE(engineTask.received->allowListMode);
  EXPECT_EQ(engineTask.received->testMode, 1u);
  EXPECT_EQ(engineTask.received->rules.size(), 1u) << "the rule of an unknown category is dropped";

  engineTask.received.reset();
  categories.failWith = kFailure;
  EXPECT_EQ(SettingsFace()->SetSettings(&settings), kFailure);
  EXPECT_FALSE(engineTask.received) << "a failed conversion doesn't reach the engine";
  EXPECT_TRUE(Traced("Cannot convert settings"));

  categories.failWith = 0;
  engineTask.setSettingsResult = kFailure;
  EXPECT_EQ(SettingsFace()->SetSettings(&settings), kFailure);
  EXPECT_TRUE(Traced("(modifier(&eacSettings)),(ZEL_SUCCEEDED(_result)) failed: result = 0x8000004b"));

  engineTask.offersSettings = false;
  EXPECT_EQ(SettingsFace()->SetSettings(&settings), zel::result::InterfaceNotSupported);
  EXPECT_TRUE(Traced("(Interface not supported)Cannot query ISettings from EAC task"));
  EXPECT_EQ(SettingsFace()->GetSettings(&settings), zel::result::NotImplemented);
}

// ---- events --------------------------------------------------------------------------

class AppControlEventTest : public AppControlTaskTest {
 protected:
  void SetUp() override {
    AppControlTaskTest::SetUp();
    TaskDescription d;
    d.taskId = 5;
    d.runtimeTaskId = 77;
    d.taskName = zel::wstring_t(u"Application_Control");
    d.taskType = zel::wstring_t(u"AppControlTaskType");
    taskRegistry.Add(d);
    info.moduleId = 0x1122334455667788ull;
    info.userName = zel::wstring_t(u"DOMAIN\\alice");
    info.userId = zel::wstring_t(u"1000");
    info.certificateSerialNumber = zel::wstring_t(u"serial");
    info.processUniqueId = 500;
    category.productCategoryName = zel::wstring_t(u"Vendor");
    category.categoryName = zel::wstring_t(u"Browsers");
    ASSERT_EQ(Create(), 0);
    ASSERT_EQ(task->Start(1, nullptr), 0);
    ASSERT_EQ(subscription.sinks.size(), 1u);
    sink = subscription.sinks[0];
  }
  void TearDown() override {
    EXPECT_EQ(task->Stop(), 0);
    AppControlTaskTest::TearDown();
  }
  zel::result_t Report(std::int32_t verdict) { return sink->OnApplicationControl(&info, &category, &verdict); }
  static std::vector<std::int32_t> Names(const tov::RuntimeEvent& e) {
    std::vector<std::int32_t> names;
    for (const auto& f : e.runtimeFields) names.push_back(f.name);
    return names;
  }

  app_ctrl::ApplicationStartInfo info;
  app_ctrl::ApplicationCategoryInfo category;
  app_ctrl::IEnterpriseApplicationControlEvents2* sink = nullptr;
};

TEST_F(AppControlEventTest, VerdictsMapToEventTypesAndSeverities) {
  struct Row {
    std::uint32_t verdict;
    std::int32_t eventType;  // -1: nothing published
    std::int32_t severity;
  };
  const Row rows[] = {
      {1, 120, 4},           {2, 122, 0},           {0x80000001u, 121, 4}, {0x80000002u, 123, 4},
      {0x80000003u, 121, 4}, {0xFFFFFFFFu, 121, 4}, {0x80000000u, -1, 0},  {0, -1, 0},
      {3, -1, 0},            {0x80000004u, -1, 0},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.verdict);
    publisher.Clear();
    EXPECT_EQ(Report(static_cast<std::int32_t>(row.verdict)), 0);
    const auto events = publisher.Events();
    if (row.eventType < 0) {
      EXPECT_TRUE(events.empty());
      continue;
    }
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0].eventType, row.eventType);
    EXPECT_EQ(events[0].severity, row.severity);
  }
}

TEST_F(AppControlEventTest, FieldsFollowTheFixedOrderAndTheProcessesKnown) {
  const std::vector<std::int32_t> base{37, 38, 5, 12, 8, 7, 0, 122, 146, 142, 143, 134, 145, 104, 103, 144};
  auto withProcess = base;
  withProcess.push_back(118);
  auto withParent = withProcess;
  withParent.push_back(147);

  locator.Remove(IProcessRegistry::iid);
  Report(1);
  locator.Register<IProcessRegistry>(&processes);
  processes.Add(500, 4321, 400, u"/usr/bin/tool");
  Report(1);  // no parent
  processes.Add(400, 1, 0, u"/usr/lib/systemd/systemd");
  Report(1);

  const auto events = publisher.Events();
  ASSERT_EQ(events.size(), 3u);
  EXPECT_EQ(Names(events[0]), base);
  EXPECT_EQ(Names(events[1]), withProcess);
  EXPECT_EQ(Names(events[2]), withParent);

  const auto& f = events[2].runtimeFields;
  // The user's and the parent's names and the user id: the next test.
  const std::pair<std::size_t, std::u16string_view> texts[] = {
      {2, u"Application_Control"}, {3, u"AppControlTaskType"}, {9, u"Browsers"}, {10, u"Vendor"}, {11, u"serial"}};
  for (const auto& [i, text] : texts) EXPECT_EQ(f[i].data.GetWString().view(), text) << "field " << i;
  const std::pair<std::size_t, std::uint64_t> numbers[] = {{4, 5}, {5, 77}, {8, 0x1122334455667788ull}, {16, 4321}};
  for (const auto& [i, number] : numbers) EXPECT_EQ(f[i].data.GetUInt64(), number) << "field " << i;
  EXPECT_EQ(f[1].data.tag(), zel::vt::Int32);
  EXPECT_EQ(f[8].data.tag(), zel::vt::UInt64);
  EXPECT_EQ(events[2].subject.kind, 2);
  EXPECT_TRUE(events[2].subject.user);
  EXPECT_GT(events[2].time, 0);
  EXPECT_TRUE(Traced("AppControlTaskCallbacks::OnApplicationControl: Process uniqueId = 400, pid = 4321"));
  EXPECT_TRUE(Traced("AppControlTaskCallbacks::OnApplicationControl: Parent process uniqueId = 400"));
}

// User names are cut at the first backslash, parent names at the last slash;
// the user id is parsed like stoll and narrowed to 32 bits in its field.
TEST_F(AppControlEventTest, UserAndParentFields) {
  const struct {
    std::u16string_view user, shownUser, image, shownImage, userId;
    std::int64_t id;
  } rows[] = {{u"bare", u"bare", u"noslash", u"noslash", u"4294967297", 4294967297ll},
              {u"a\\b\\c", u"b\\c", u"/dir/", u"", u"-5", -5},
              {u"\\x", u"x", u"", u"", u" 12", 12},
              {u"", u"", u"/a/b/c", u"c", u"1000", 1000}};
  processes.Add(500, 10, 400, u"/x");
  for (const auto& row : rows) {
    info.userName = zel::wstring_t(row.user);
    info.userId = zel::wstring_t(row.userId);
    processes.Add(400, 1, 0, row.image);
    publisher.Clear();
    Report(1);
    const auto events = publisher.Events();
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0].runtimeFields[0].data.GetWString().view(), row.shownUser);
    EXPECT_EQ(events[0].subject.user->userName.view(), row.shownUser);
    EXPECT_EQ(events[0].subject.user->userId, row.id);
    EXPECT_EQ(events[0].runtimeFields[1].data.GetInt32(), static_cast<std::int32_t>(row.id));
    ASSERT_EQ(events[0].runtimeFields.size(), 18u);
    EXPECT_EQ(events[0].runtimeFields[17].data.GetWString().view(), row.shownImage);
  }
  publisher.Clear();
  info.userId = zel::wstring_t(u"not a number");
  EXPECT_THROW(Report(1), std::invalid_argument);
  info.userId = zel::wstring_t(u"99999999999999999999");
  EXPECT_THROW(Report(1), std::out_of_range);
  info.userId = zel::wstring_t(u"\u00e9");  // not expressible in the C locale
  EXPECT_THROW(Report(1), std::bad_cast);
  EXPECT_EQ(publisher.Count(), 0u);
}

TEST_F(AppControlEventTest, FailedTaskLookupLeavesFallbackValuesForTheObjectsLife) {
  // A fresh task: the cache of the fixture's task is already filled.
  ASSERT_EQ(task->Stop(), 0);
  task.Reset();
  taskRegistry.FailWith(kFailure);
  ASSERT_EQ(Create(), 0);
  ASSERT_EQ(task->Start(1, nullptr), 0);
  sink = subscription.sinks[0];
  Report(1);
  taskRegistry.FailWith(0);
  Report(1);
  const auto events = publisher.Events();
  ASSERT_EQ(events.size(), 2u);
  for (const auto& e : events) {
    EXPECT_EQ(e.runtimeFields[2].data.GetWString().view(), u"Application_Control");
    EXPECT_EQ(e.runtimeFields[3].data.GetWString().view(), u"AppControl");
    EXPECT_EQ(e.runtimeFields[4].data.GetUInt64(), 21u);
    EXPECT_EQ(e.runtimeFields[5].data.GetUInt64(), 0u);
  }
  EXPECT_EQ(taskRegistry.Lookups(), 1u);
  const auto credentials = taskRegistry.LastCredentials();
  ASSERT_TRUE(credentials);
  EXPECT_EQ(credentials->userName.view(), u"root");
  EXPECT_EQ(credentials->kind, 2);
}

TEST_F(AppControlEventTest, PublisherFailureIsOneWarningAndTheCallbackStillSucceeds) {
  publisher.FailWith(kFailure, 1);
  EXPECT_EQ(Report(2), 0);
  const auto lines = tracer.Lines();
  EXPECT_TRUE(std::any_of(lines.begin(), lines.end(), [](const host::CollectingTracer::Line& l) {
    return l.level == 500 && l.text == "AppControlTaskCallbacks::PublishEvent: Cannot publish event";
  }));
  EXPECT_EQ(sink->OnFailSafeModeBoot(), 0);
  EXPECT_EQ(sink->OnUnknownModulesOfflineHistoryLost(), 0);
  EXPECT_TRUE(Traced("AppControlTaskCallbacks::OnFailSafeModeBoot() "));
}

}  // namespace
