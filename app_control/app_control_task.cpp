#include "app_control/app_control_task.h"

#include <exception>
#include <utility>

#include "app_control/interfaces/controller_service_settings.h"
#include "app_control/interfaces/exclusion_record.h"
#include "app_control/interfaces/iengine_object_creator.h"
#include "app_control/interfaces/iengine_task_settings.h"
#include "app_control/interfaces/iprocess_registry.h"
#include "app_control/tools/convert_settings.h"
#include "app_control/tools/event_arena.h"
#include "app_control/tools/runtime_event_builder.h"
#include "app_control/tools/trusted_programs.h"
#include "tov_common/serobj_dumper.h"
#include "tov_utils/update_service_settings_sync.h"
#include "zel/rtl/error_handling/checks.h"
#include "zel/rtl/error_handling/exceptions.h"
#include "zel/trace/trace_stream.h"

namespace zel {
template <>
struct SerObjId<app_ctrl::ControllerServiceSettings> {
  static constexpr std::uint32_t value = app_ctrl::kControllerServiceSettingsId;
};
}  // namespace zel

// The module's own tools and the shared settings update read as one
// namespace at the call sites, so the logged expression names the call.
namespace tov::app_control::tools {
using ::tools::UpdateServiceSettingsSync;
}  // namespace tov::app_control::tools

namespace tov::app_control {
namespace {

using app_core::task_manager::task::ITaskStopEvents;
using app_core::task_manager::task::TaskSessionId;
using zel::trace_level::Info;

constexpr char16_t kTaskName[] = u"Application_Control";
constexpr char16_t kFallbackTaskType[] = u"AppControl";
constexpr std::uint64_t kFallbackTaskId = 21;

// Who the callbacks are when they ask the host's task registry.
const TaskRegistryCredentials& RegistryCredentials() {
  static const TaskRegistryCredentials credentials{0, zel::wstring_t(u"root"), 2, -1, 1};
  return credentials;
}

}  // namespace

// ==== AppControlTaskCallbacks ====================================================

AppControlTaskCallbacks::AppControlTaskCallbacks(zel::IServiceLocator* serviceLocator,
                                                 const tov::settings::AppControlSettings* settings)
    : zel::ServiceProvider<zel::IServiceLocator, tov::INonRemoteEventPublisher>(serviceLocator),
      zel::TracerProvider(serviceLocator, "AppControlTaskCallbacks") {
  ZEL_TRACE(GetTracer(), Info) << "AppControlTaskCallbacks" << "() ";
  ZEL_CHECK_RESULT_THROW(
      ApplySettings(settings, [this](app_ctrl::EnterpriseApplicationControlSettings* s) { return CreateEngineTask(s); }),
      "Cannot apply settings");
  ZEL_CHECK_RESULT_THROW(AddProductTrustedPrograms(), "Cannot add trusted programs");
}

AppControlTaskCallbacks::~AppControlTaskCallbacks() = default;

int AppControlTaskCallbacks::CreateEngineTask(const app_ctrl::EnterpriseApplicationControlSettings* settings) {
  // The record that travels to the engine belongs to this call.
  const app_ctrl::EnterpriseApplicationControlSettings copy(*settings);
  zel::RefPtr<IEngineObjectCreator> creator;
  zel::GetInterface(Get<zel::IServiceLocator>(), creator);
  EngineObjectParameters parameters{&copy, app_ctrl::kEacSettingsSerId, nullptr};
  const zel::result_t r =
      creator->CreateObject(app_ctrl::kEacTaskClassId, app_core::task_manager::task::ITask::iid,
                            Get<zel::IServiceLocator>(), &parameters, 0, reinterpret_cast<void**>(m_pdkTask.Ref()));
  // A descriptor the creator filled in is ours to release.
  const auto descriptor = zel::RefPtr<zel::IObject>::Adopt(std::exchange(parameters.descriptor, nullptr));
  creator.Reset();
  ZEL_CHECK_RESULT_THROW(r, "Cannot create EAC task");
  return 0;
}

zel::result_t AppControlTaskCallbacks::ApplySettings(const tov::settings::AppControlSettings* settings,
                                                     const EngineSettingsModifier& modifier) {
  try {
    zel::IServiceLocator* sl = Get<zel::IServiceLocator>();
    ZEL_CHECK_BOOL_LOG_RETURN(GetTracer(), settings != nullptr, zel::result::InvalidArgument);
    ZEL_TRACE(GetTracer(), Info) << "ApplySettings" << "() " << " "
                                 << tov::TypeNameOf<tov::settings::AppControlSettings>() << ":\n"
                                 << tov::SerObjDump<tov::settings::AppControlSettings>(sl, settings);

    EngineRuleList rules;
    ZEL_CHECK_RESULT_LOG_RETURN(GetTracer(), ConvertSettings(sl, *settings, rules), "Cannot convert settings");
    app_ctrl::EnterpriseApplicationControlSettings eacSettings = ComposeEngineSettings(*settings, std::move(rules));
    ZEL_CHECK_RESULT_LOG_RETURN(GetTracer(), modifier(&eacSettings));
    return zel::result::NoError;
  } catch (...) {
    return zel::ResultFromCurrentException(
        GetTracer(),
        "result_t tov::app_control::AppControlTaskCallbacks::ApplySettings(const tov::settings::AppControlSettings*, "
        "const std::function<int(app_ctrl::EnterpriseApplicationControlSettings*)>&)");
  }
}

zel::result_t AppControlTaskCallbacks::SetSettings(const tov::settings::AppControlSettings* settings) {
  ZEL_TRACE(GetTracer(), Info) << "SetSettings" << "() ";
  zel::RefPtr<app_ctrl::ISettings> pdkSettings;
  ZEL_CHECK_RESULT_LOG_RETURN(GetTracer(), zel::QueryInterface(m_pdkTask, pdkSettings.Ref()),
                              "Cannot query ISettings from EAC task");
  app_ctrl::ISettings* engineSettings = pdkSettings.Get();
  return ApplySettings(settings, [engineSettings](app_ctrl::EnterpriseApplicationControlSettings* s) {
    return engineSettings->SetSettings(s);
  });
}

zel::result_t AppControlTaskCallbacks::AddProductTrustedPrograms() {
  ZEL_TRACE(GetTracer(), Info) << "AddProductTrustedPrograms" << "() ";
  const exclude::applications::ExclusionList programs = tools::MakeTrustedProgramRecords(tools::kProductTrustedPrograms);
  auto modifier = [programs](exclude::applications::ExclusionList& list) {
    return tools::MergeTrustedPrograms(list, programs);
  };
  ZEL_CHECK_RESULT_LOG_RETURN(
      GetTracer(), tools::UpdateServiceSettingsSync(GetTracer(), GetServiceLocator(), exclude::applications::eCLSID, modifier));
  return zel::result::NoError;
}

zel::result_t AppControlTaskCallbacks::Start(TaskSessionId sessionId, ITaskStopEvents* taskStopNotifier) {
  ZEL_TRACE(GetTracer(), Info) << "Start" << "() ";
  ZEL_CHECK_RESULT_LOG_RETURN(GetTracer(), m_pdkTask->Start(sessionId, taskStopNotifier), "Cannot start EAC task");
  return zel::result::NoError;
}

zel::result_t AppControlTaskCallbacks::Stop() {
  ZEL_TRACE(GetTracer(), Info) << "Stop" << "() ";
  ZEL_CHECK_RESULT_LOG_RETURN(GetTracer(), m_pdkTask->Stop(), "Cannot stop EAC task");
  return zel::result::NoError;
}

zel::result_t AppControlTaskCallbacks::Pause() {
  ZEL_TRACE(GetTracer(), Info) << "Pause" << "() ";
  ZEL_CHECK_RESULT_LOG_RETURN(GetTracer(), m_pdkTask->Pause(), "Cannot pause EAC task");
  return zel::result::NoError;
}

zel::result_t AppControlTaskCallbacks::Resume() {
  ZEL_TRACE(GetTracer(), Info) << "Resume" << "() ";
  ZEL_CHECK_RESULT_LOG_RETURN(GetTracer(), m_pdkTask->Resume(), "Cannot resume EAC task");
  return zel::result::NoError;
}

const TaskDescription& AppControlTaskCallbacks::CachedTaskDescription() {
  std::call_once(m_taskDescriptionOnce, [this] {
    TaskDescription description;
    const zel::wstring_t name(kTaskName);
    zel::RefPtr<ITaskRegistry> registry;
    zel::result_t r = zel::GetInterface(Get<zel::IServiceLocator>(), registry.Ref());
    if (ZEL_SUCCEEDED(r)) r = registry->GetTaskByName(name, &description, RegistryCredentials());
    if (ZEL_FAILED(r)) {
      // A failed lookup is not repeated: these values stand for the object's life.
      description.taskName = name;
      description.taskType = zel::wstring_t(kFallbackTaskType);
      description.taskId = kFallbackTaskId;
    }
    m_taskDescription.emplace(std::move(description));
  });
  return *m_taskDescription;
}

zel::result_t AppControlTaskCallbacks::OnApplicationControl(const app_ctrl::ApplicationStartInfo* info,
                                                            const app_ctrl::ApplicationCategoryInfo* categories,
                                                            const std::int32_t* verdict) {
  ZEL_TRACE(GetTracer(), Info) << "OnApplicationControl" << "() ";
  ZEL_CHECK_BOOL_LOG_RETURN(GetTracer(), info != nullptr && categories != nullptr && verdict != nullptr,
                            zel::result::InvalidArgument);

  // The event's fields and text all come from one block made for it.
  const zel::RefPtr<zel::IAllocator> arena = tools::EventArena::Create();
  tov::RuntimeEvent event;
  event.runtimeFields = zel::types::vector_t<tov::RuntimeField>(arena.Get());
  event.time = tools::CurrentEventTime();
  const TaskDescription& task = CachedTaskDescription();

  const std::int64_t userId = tools::ParseUserId(info->userId.view());
  const std::u16string_view userName = tools::UserNameWithoutDomain(info->userName.view());
  event.subject.kind = 2;
  event.subject.user.emplace();
  event.subject.user->userId = userId;
  event.subject.user->userName = zel::wstring_t(userName, arena.Get());

  event.runtimeFields.reserve(18);
  using tov::FieldName;
  tools::AppendField(event, FieldName::AccessUser, userName);
  tools::AppendField(event, FieldName::AccessUserId, static_cast<std::int32_t>(userId));
  tools::AppendField(event, FieldName::TaskName, task.taskName.view());
  tools::AppendField(event, FieldName::TaskType, task.taskType.view());
  tools::AppendField(event, FieldName::TaskId, task.taskId);
  tools::AppendField(event, FieldName::RuntimeTaskId, task.runtimeTaskId);
  tools::AppendField(event, FieldName::FileName, info->fileName.view());
  tools::AppendField(event, FieldName::FileHash, info->fileHash.view());
  tools::AppendField(event, FieldName::ModuleId, info->moduleId);
  tools::AppendField(event, FieldName::Category, categories->categoryName.view());
  tools::AppendField(event, FieldName::VendorCategory, categories->productCategoryName.view());
  tools::AppendField(event, FieldName::SerialNumber, info->certificateSerialNumber.view());
  tools::AppendField(event, FieldName::Thumbprint, info->certificateThumbprint.view());
  tools::AppendField(event, FieldName::Issuer, info->certificateIssuer.view());
  tools::AppendField(event, FieldName::Subject, info->certificateSubject.view());
  tools::AppendField(event, FieldName::FileVersion, info->fileVersion.view());

  // The process and its parent enrich the event when the host knows them;
  // without them, or when asking throws, the event goes out with what it has.
  // Each field is appended whole, so what was added before a throw stays.
  try {
    zel::RefPtr<IProcessRegistry> processes;
    zel::RefPtr<IProcessObject> process;
    ProcessDescription description;
    // A host that fills the strings in place uses the event's memory for them too.
    description.imagePath = zel::wstring_t(arena.Get());
    description.commandLine = zel::wstring_t(arena.Get());
    description.currentDirectory = zel::wstring_t(arena.Get());
    if (ZEL_SUCCEEDED(zel::GetInterface(Get<zel::IServiceLocator>(), processes.Ref())) &&
        ZEL_SUCCEEDED(processes->GetProcess(&info->processUniqueId, process.Ref())) &&
        ZEL_SUCCEEDED(process->GetDescription(&description))) {
      ZEL_TRACE(GetTracer(), Info) << "OnApplicationControl" << ": " << "Process uniqueId = "
                                   << description.parentUniqueId << ", pid = " << description.processId;
      tools::AppendField(event, FieldName::ProcessId, static_cast<std::uint64_t>(description.processId));
      ZEL_TRACE(GetTracer(), Info) << "OnApplicationControl" << ": " << "Parent process uniqueId = "
                                   << description.parentUniqueId;
      process.Reset();
      const std::uint64_t parentUniqueId = description.parentUniqueId;
      if (ZEL_SUCCEEDED(processes->GetProcess(&parentUniqueId, process.Ref())) &&
          ZEL_SUCCEEDED(process->GetDescription(&description))) {
        tools::AppendField(event, FieldName::ParentProcessName, tools::ImageFileName(description.imagePath.view()));
      }
    }
  } catch (...) {
    ZEL_TRACE(GetTracer(), zel::trace_level::Warning) << "OnApplicationControl" << ": " << "Cannot describe the process";
  }

  if (const auto mapped = tools::EventForVerdict(*verdict)) {
    event.eventType = static_cast<std::int32_t>(mapped->eventType);
    event.severity = static_cast<std::int32_t>(mapped->severity);
    PublishEvent(event);
  }
  return zel::result::NoError;
}

void AppControlTaskCallbacks::PublishEvent(tov::RuntimeEvent& event) {
  ZEL_TRACE(GetTracer(), Info) << "PublishEvent" << "() ";
  const zel::result_t r = Get<tov::INonRemoteEventPublisher>()->PublishEvent(&event);
  if (ZEL_FAILED(r)) {
    // The event is lost; the verdict stands whatever happens here.
    ZEL_TRACE(GetTracer(), zel::trace_level::Warning) << "PublishEvent" << ": " << "Cannot publish event";
  }
}

zel::result_t AppControlTaskCallbacks::OnFailSafeModeBoot() {
  ZEL_TRACE(GetTracer(), Info) << "OnFailSafeModeBoot" << "() ";
  return zel::result::NoError;
}

zel::result_t AppControlTaskCallbacks::OnUnknownModulesOfflineHistoryLost() {
  ZEL_TRACE(GetTracer(), Info) << "OnUnknownModulesOfflineHistoryLost" << "() ";
  return zel::result::NoError;
}

// ==== AppControlTask ==============================================================

AppControlTask::AppControlTask(zel::IServiceLocator* serviceLocator, const tov::settings::AppControlSettings* settings)
    : zel::ServiceProvider<zel::IServiceLocator, app_ctrl::IEnterpriseApplicationControlEvents2Subscription>(
          serviceLocator),
      zel::TracerProvider(serviceLocator, "AppControlTask") {
  m_callbacksHolder = zel::RefPtr<AppControlTaskCallbacks>::Adopt(
      zel::detail::CreateObjectImplWith<AppControlTaskCallbacks, zel::abi_v2_allocator>(serviceLocator, settings));
  m_callbacks = m_callbacksHolder.Get();
  ZEL_TRACE(GetTracer(), Info) << "AppControlTask" << "() ";
}

AppControlTask::~AppControlTask() {
  ZEL_TRACE(GetTracer(), Info) << "~AppControlTask" << "() ";
}

void AppControlTask::UnsubscribeCallbacks() noexcept {
  // Whether the service still knew the sink is of no consequence here.
  static_cast<void>(Get<app_ctrl::IEnterpriseApplicationControlEvents2Subscription>()->Unsubscribe(m_callbacks));
}

zel::result_t AppControlTask::Start(TaskSessionId sessionId, ITaskStopEvents* taskStopNotifier) {
  try {
    ZEL_TRACE(GetTracer(), Info) << "Start" << "() ";
    ZEL_CHECK_RESULT_LOG_RETURN(GetTracer(), DisableZyph());
    ZEL_CHECK_RESULT_LOG_RETURN(GetTracer(),
                                Get<app_ctrl::IEnterpriseApplicationControlEvents2Subscription>()->Subscribe( m_callbacks),
                                "Cannot subscribe");
    zel::result_t started;
    try {
      started = m_callbacks->Start(sessionId, taskStopNotifier);
    } catch (...) {
      UnsubscribeCallbacks();
      throw;
    }
    if (ZEL_FAILED(started)) {
      UnsubscribeCallbacks();
      return started;
    }
    return zel::result::NoError;
  } catch (...) {
    return zel::ResultFromCurrentException(
        GetTracer(),
        "virtual result_t tov::app_control::AppControlTask::Start(app_core::task_manager::task::TaskSessionId, "
        "app_core::task_manager::task::ITaskStopEvents*)");
  }
}

zel::result_t AppControlTask::Stop() {
  try {
    ZEL_TRACE(GetTracer(), Info) << "Stop" << "() ";
    const zel::result_t r = m_callbacks->Stop();
    // An engine task that didn't stop may still report: keep listening.
    if (ZEL_SUCCEEDED(r)) UnsubscribeCallbacks();
    return r;
  } catch (...) {
    return zel::ResultFromCurrentException(GetTracer(), "virtual result_t tov::app_control::AppControlTask::Stop()");
  }
}

zel::result_t AppControlTask::Pause() {
  try {
    return m_callbacks->Pause();
  } catch (...) {
    return zel::ResultFromCurrentException(GetTracer(), "virtual result_t tov::app_control::AppControlTask::Pause()");
  }
}

zel::result_t AppControlTask::Resume() {
  try {
    return m_callbacks->Resume();
  } catch (...) {
    return zel::ResultFromCurrentException(GetTracer(), "virtual result_t tov::app_control::AppControlTask::Resume()");
  }
}

zel::result_t AppControlTask::SetSettings(const tov::settings::AppControlSettings* settings) {
  try {
    return m_callbacks->SetSettings(settings);
  } catch (...) {
    return zel::ResultFromCurrentException(
        GetTracer(),
        "virtual result_t tov::app_control::AppControlTask::SetSettings(const tov::settings::AppControlSettings*)");
  }
}

zel::result_t AppControlTask::GetSettings(tov::settings::AppControlSettings*) {
  ZEL_TRACE(GetTracer(), Info) << "GetSettings" << "() ";
  return zel::result::NotImplemented;
}

zel::result_t AppControlTask::DisableZyph() {
  auto modifier = [](app_ctrl::ControllerServiceSettings& settings) {
    if (!settings.useCloudReputation) return false;
    settings.useCloudReputation = false;
    return true;
  };
  ZEL_CHECK_RESULT_LOG_RETURN(GetTracer(), tools::UpdateServiceSettingsSync(GetTracer(), GetServiceLocator(),
                                                                           app_ctrl::CLSID_ENT_APP_CONTROLLER, modifier));
  return zel::result::NoError;
}

}  // namespace tov::app_control
