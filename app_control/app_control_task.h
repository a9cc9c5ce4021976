// tov::app_control::AppControlTask: the run-time application control task as
// the host's task manager sees it, and AppControlTaskCallbacks, its companion
// that holds the engine task and receives what the engine reports.
//
// The task is a thin shell around the engine task: it fixes the order of
// events around it (cloud reputation off, callbacks subscribed, engine task
// started) and takes them back in the right order on failure or stop. The
// callbacks turn each engine verdict into one product event. Both live in
// the first object flavour: malloc'ed, counted in ModuleLockCount.
#pragma once

#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>

#include "app_control/interfaces/iapp_control_task_settings.h"
#include "app_control/interfaces/ienterprise_application_control_events2.h"
#include "app_control/interfaces/ienterprise_application_control_events2_subscription.h"
#include "app_control/interfaces/inon_remote_event_publisher.h"
#include "app_control/interfaces/itask.h"
#include "app_control/interfaces/itask_registry.h"
#include "tov_common/settings/app_control_settings.h"
#include "tov_common/settings/enterprise_application_control_settings.h"
#include "tov_tracing/tracer_provider.h"
#include "zel/noncopyable.h"
#include "zel/rtl/objbase.h"
#include "zel/rtl/objclient.h"

namespace tov::app_control {

using EngineSettingsModifier = std::function<int(app_ctrl::EnterpriseApplicationControlSettings*)>;

class AppControlTaskCallbacks : public zel::object::Ifaces<app_ctrl::IEnterpriseApplicationControlEvents2>,
                                public zel::ServiceProvider<zel::IServiceLocator, tov::INonRemoteEventPublisher>,
                                public zel::TracerProvider,
                                public zel::NonCopyable {
 public:
  // Creates the engine task from the converted `settings` and enters the
  // product's programs as trusted; a failure of either throws
  // zel::CheckResultFailedException, as a missing service throws
  // zel::GetInterfaceException.
  AppControlTaskCallbacks(zel::IServiceLocator* serviceLocator, const tov::settings::AppControlSettings* settings);

  // ---- IEnterpriseApplicationControlEvents2 (engine threads) ----
  // Publishes at most one event; never changes the verdict. Exceptions from
  // reading the engine's user id pass through to the engine.
  zel::result_t OnApplicationControl(const app_ctrl::ApplicationStartInfo* info,
                                     const app_ctrl::ApplicationCategoryInfo* categories,
                                     const std::int32_t* verdict) override;
  zel::result_t OnFailSafeModeBoot() override;
  zel::result_t OnUnknownModulesOfflineHistoryLost() override;

  // ---- the engine task, for the owning AppControlTask ----
  zel::result_t Start(app_core::task_manager::task::TaskSessionId sessionId,
                      app_core::task_manager::task::ITaskStopEvents* taskStopNotifier);
  zel::result_t Stop();
  zel::result_t Pause();
  zel::result_t Resume();
  // Converts `settings` and hands the engine record to `modifier`.
  zel::result_t ApplySettings(const tov::settings::AppControlSettings* settings, const EngineSettingsModifier& modifier);
  // Converts `settings` and gives them to the running engine task.
  zel::result_t SetSettings(const tov::settings::AppControlSettings* settings);
  // Merges the product's programs into the host's exclusion list.
  zel::result_t AddProductTrustedPrograms();

 protected:
  ~AppControlTaskCallbacks();

 private:
  // The engine-task creating modifier of construction.
  int CreateEngineTask(const app_ctrl::EnterpriseApplicationControlSettings* settings);
  // The task as the host's registry knows it; looked up once per object.
  const TaskDescription& CachedTaskDescription();
  void PublishEvent(tov::RuntimeEvent& event);

  zel::RefPtr<app_core::task_manager::task::ITask> m_pdkTask;
  std::optional<TaskDescription> m_taskDescription;
  // The engine may report from several threads before the first lookup ended.
  std::once_flag m_taskDescriptionOnce;
};

class AppControlTask : public zel::object::Ifaces<app_core::task_manager::task::ITask, IAppControlTaskSettings>,
                       public zel::ServiceProvider<zel::IServiceLocator,
                                                   app_ctrl::IEnterpriseApplicationControlEvents2Subscription>,
                       public zel::TracerProvider,
                       public zel::NonCopyable {
 public:
  // `settings` are the task's first settings; they must convert and the
  // engine task must be created, or construction throws.
  AppControlTask(zel::IServiceLocator* serviceLocator, const tov::settings::AppControlSettings* settings);

  // ---- ITask ----
  zel::result_t Start(app_core::task_manager::task::TaskSessionId sessionId,
                      app_core::task_manager::task::ITaskStopEvents* taskStopNotifier) override;
  // Leaves the callbacks subscribed when the engine task refuses to stop.
  zel::result_t Stop() override;
  zel::result_t Pause() override;
  zel::result_t Resume() override;

  // ---- IAppControlTaskSettings ----
  zel::result_t SetSettings(const tov::settings::AppControlSettings* settings) override;
  zel::result_t GetSettings(tov::settings::AppControlSettings* settings) override;

  // The companion, for whoever inspects the task (tests).
  AppControlTaskCallbacks* Callbacks() const noexcept { return m_callbacks; }

 protected:
  // Neither stops nor unsubscribes: the host stops the task first.
  ~AppControlTask();

 private:
  // Switches the engine's use of the cloud reputation service off, writing
  // only when it is still on.
  zel::result_t DisableZyph();
  void UnsubscribeCallbacks() noexcept;

  // The holder owns the reference; m_callbacks is the plain pointer the
  // call sites (and their logged expressions) use, valid as long as it.
  zel::RefPtr<AppControlTaskCallbacks> m_callbacksHolder;
  AppControlTaskCallbacks* m_callbacks = nullptr;
};

}  // namespace tov::app_control
