// Fakes of the engine and host services around the application control
// task: the engine's object creator and its task, the event subscription,
// an in-memory service settings store, and a process registry with a table
// of processes. All are owned by the test (reference counts are bookkeeping
// only) and write what they are asked into one shared call journal, so that
// a test can assert the order of calls across services.
#pragma once

#include <algorithm>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "app_control/interfaces/controller_service_settings.h"
#include "app_control/interfaces/exclusion_record.h"
#include "app_control/interfaces/iengine_object_creator.h"
#include "app_control/interfaces/iengine_task_settings.h"
#include "app_control/interfaces/ienterprise_application_control_events2_subscription.h"
#include "app_control/interfaces/iprocess_registry.h"
#include "app_control/interfaces/itask.h"
#include "host/services/host_object.h"
#include "tov_common/settings/enterprise_application_control_settings.h"
#include "tov_utils/interfaces/iservice_manager.h"

namespace testsupport {

struct CallJournal {
  std::mutex mutex;
  std::vector<std::string> calls;
  void Add(std::string call) {
    std::lock_guard lock(mutex);
    calls.push_back(std::move(call));
  }
  std::vector<std::string> Take() {
    std::lock_guard lock(mutex);
    return std::exchange(calls, {});
  }
};

// Reference counting that never destroys: the test owns the object.
template <class Derived, class... I>
class TestOwned : public host::OwnedObject<Derived, I...> {
 public:
  std::int64_t ExtraRefs() const { return this->OutstandingRefs(); }
};

// The engine's task: ITask and ISettings, with results a test sets.
class FakeEngineTask final
    : public TestOwned<FakeEngineTask, app_core::task_manager::task::ITask, app_ctrl::ISettings> {
 public:
  explicit FakeEngineTask(CallJournal& journal) : m_journal(journal) {}

  // ISettings only while offersSettings is on.
  zel::result_t QueryInterface(zel::iid_t iid, void** out) override {
    if (iid == app_ctrl::ISettings::iid && !offersSettings) return zel::result::InterfaceNotSupported;
    return OwnedObject::QueryInterface(iid, out);
  }

  zel::result_t Start(app_core::task_manager::task::TaskSessionId sessionId,
                      app_core::task_manager::task::ITaskStopEvents*) override {
    m_journal.Add("engine.Start");
    lastSessionId = sessionId;
    if (throwOnStart) throw std::runtime_error("engine start threw");
    return startResult;
  }
  zel::result_t Stop() override { return Note("engine.Stop", stopResult); }
  zel::result_t Pause() override { return Note("engine.Pause", pauseResult); }
  zel::result_t Resume() override { return Note("engine.Resume", resumeResult); }
  zel::result_t SetSettings(const app_ctrl::EnterpriseApplicationControlSettings* settings) override {
    received = *settings;
    return Note("engine.SetSettings", setSettingsResult);
  }

  zel::result_t startResult = 0, stopResult = 0, pauseResult = 0, resumeResult = 0, setSettingsResult = 0;
  bool throwOnStart = false;
  bool offersSettings = true;
  std::optional<app_ctrl::EnterpriseApplicationControlSettings> received;
  app_core::task_manager::task::TaskSessionId lastSessionId = 0;

 private:
  zel::result_t Note(const char* call, zel::result_t result) {
    m_journal.Add(call);
    return result;
  }
  CallJournal& m_journal;
};

class FakeEngineObjectCreator final : public TestOwned<FakeEngineObjectCreator, IEngineObjectCreator> {
 public:
  FakeEngineObjectCreator(CallJournal& journal, FakeEngineTask& task) : m_journal(journal), m_task(task) {}

  zel::result_t CreateObject(std::uint32_t classId, zel::iid_t iid, zel::IServiceLocator*,
                             const EngineObjectParameters* parameters, std::uintptr_t, void** out) override {
    m_journal.Add("creator.CreateObject");
    lastClassId = classId;
    lastIid = iid;
    lastSerId = parameters->serId;
    created = *static_cast<const app_ctrl::EnterpriseApplicationControlSettings*>(parameters->object);
    if (failWith < 0) return failWith;
    return m_task.QueryInterface(iid, out);
  }

  zel::result_t failWith = 0;
  std::uint32_t lastClassId = 0;
  zel::iid_t lastIid = 0;
  std::uint32_t lastSerId = 0;
  std::optional<app_ctrl::EnterpriseApplicationControlSettings> created;

 private:
  CallJournal& m_journal;
  FakeEngineTask& m_task;
};

// Keeps subscribed sinks (with a reference) so a test can play the engine.
class FakeSubscription final
    : public TestOwned<FakeSubscription, app_ctrl::IEnterpriseApplicationControlEvents2Subscription> {
 public:
  explicit FakeSubscription(CallJournal& journal) : m_journal(journal) {}

  zel::result_t Subscribe(app_ctrl::IEnterpriseApplicationControlEvents2* sink) override {
    m_journal.Add("Subscribe");
    if (subscribeResult < 0) return subscribeResult;
    sink->AddRef();
    sinks.push_back(sink);
    return 0;
  }
  zel::result_t Unsubscribe(app_ctrl::IEnterpriseApplicationControlEvents2* sink) override {
    m_journal.Add("Unsubscribe");
    const auto it = std::find(sinks.begin(), sinks.end(), sink);
    if (it == sinks.end()) return zel::result::NotFound;
    sinks.erase(it);
    sink->Release();
    return 0;
  }

  zel::result_t subscribeResult = 0;
  std::vector<app_ctrl::IEnterpriseApplicationControlEvents2*> sinks;

 private:
  CallJournal& m_journal;
};

// Stored settings of the engine controller and of the exclusion service,
// kept as records, with revisions and one-shot faults.
class FakeServiceManager final : public TestOwned<FakeServiceManager, app_core::facade::IServiceManager> {
 public:
  explicit FakeServiceManager(CallJournal& journal) : m_journal(journal) {}

  zel::result_t GetServiceSettings(std::uint32_t, app_core::facade::SettingsHolder*) override { return Unused(); }
  zel::result_t SetServiceSettings(std::uint32_t, std::uint32_t, const app_core::facade::SettingsHolder*) override {
    return Unused();
  }
  zel::result_t GetServiceSettingsRevision(std::uint32_t, std::uint32_t*) override { return Unused(); }
  zel::result_t HasServiceSettings(std::uint32_t) override { return Unused(); }
  zel::result_t RemoveServiceSettings(std::uint32_t) override { return Unused(); }

  zel::result_t GetServiceSettings2(std::uint32_t key, app_core::facade::SettingsHolder* holder,
                                    std::uint32_t* revision) override {
    m_journal.Add("ssm.Read:" + Name(key));
    if (const zel::result_t fault = std::exchange(failRead, 0); fault < 0) return fault;
    *revision = revisions[key];
    if (key == app_ctrl::CLSID_ENT_APP_CONTROLLER && controller) {
      *static_cast<app_ctrl::ControllerServiceSettings*>(holder->object) = *controller;
      return 0;
    }
    if (key == exclude::applications::eCLSID && exclusions) {
      *static_cast<exclude::applications::ExclusionList*>(holder->object) = *exclusions;
      return 0;
    }
    return 1;  // nothing stored: the record stays as given
  }
  zel::result_t UpdateServiceSettings2(std::uint32_t key, std::uint32_t, const app_core::facade::SettingsHolder* holder,
                                       std::uint32_t revision) override {
    m_journal.Add("ssm.Write:" + Name(key));
    if (revision != revisions[key]) return app_core::facade::kSettingsRevisionChanged;
    ++revisions[key];
    if (key == app_ctrl::CLSID_ENT_APP_CONTROLLER) {
      controller = *static_cast<const app_ctrl::ControllerServiceSettings*>(holder->object);
    } else if (key == exclude::applications::eCLSID) {
      exclusions = *static_cast<const exclude::applications::ExclusionList*>(holder->object);
    }
    return 0;
  }
  zel::result_t FlushSettings() override {
    m_journal.Add("ssm.Flush");
    return 0;
  }

  std::optional<app_ctrl::ControllerServiceSettings> controller;
  std::optional<exclude::applications::ExclusionList> exclusions;
  std::map<std::uint32_t, std::uint32_t> revisions;
  zel::result_t failRead = 0;  // one-shot

 private:
  static std::string Name(std::uint32_t key) {
    if (key == app_ctrl::CLSID_ENT_APP_CONTROLLER) return "controller";
    if (key == exclude::applications::eCLSID) return "exclusions";
    return std::to_string(key);
  }
  zel::result_t Unused() {
    m_journal.Add("ssm.unexpected");
    return zel::result::NotImplemented;
  }
  CallJournal& m_journal;
};

class FakeProcessObject final : public TestOwned<FakeProcessObject, IProcessObject> {
 public:
  explicit FakeProcessObject(ProcessDescription description) : description(std::move(description)) {}
  zel::result_t GetDescription(ProcessDescription* out) override {
    if (failWith < 0) return failWith;
    *out = description;
    return 0;
  }
  ProcessDescription description;
  zel::result_t failWith = 0;
};

// Processes by unique id; unknown ids answer 0x8000004C.
class FakeProcessRegistry final : public TestOwned<FakeProcessRegistry, IProcessRegistry> {
 public:
  zel::result_t GetUniqueId(std::uint32_t, std::uint64_t*) override { return zel::result::NotImplemented; }
  zel::result_t GetProcessByPid(std::uint32_t, IProcessObject**) override {
    return zel::result::NotImplemented;
  }
  zel::result_t GetProcess(const std::uint64_t* uniqueId, IProcessObject** process) override {
    const auto it = processes.find(*uniqueId);
    if (it == processes.end()) return zel::result::NotFound;
    it->second->AddRef();
    *process = it->second.get();
    return 0;
  }

  FakeProcessObject& Add(std::uint64_t uniqueId, std::uint32_t pid, std::uint64_t parentUniqueId,
                         std::u16string_view imagePath) {
    ProcessDescription d;
    d.processId = pid;
    d.parentUniqueId = parentUniqueId;
    d.imagePath = zel::wstring_t(imagePath);
    auto& slot = processes[uniqueId];
    slot = std::make_unique<FakeProcessObject>(std::move(d));
    return *slot;
  }
  std::int64_t ObjectRefs() const {
    std::int64_t n = 0;
    for (const auto& [id, p] : processes) n += p->ExtraRefs();
    return n;
  }

  std::map<std::uint64_t, std::unique_ptr<FakeProcessObject>> processes;
};

}  // namespace testsupport
