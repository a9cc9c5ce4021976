#include "host/engine/engine_services.h"

#include "tov_common/enums/enum_names.h"

namespace host {

EngineServices::EngineServices(const EngineServicesOptions& options)
    : cgroups(options.cgroupRoot, options.procRoot),
      processes(options.procRoot),
      publisher(options.eventsOut),
      engine(options.sysRoot, options.hashCacheCapacity),
      creator(engine) {
  TaskDescription appControl;
  appControl.taskId = static_cast<std::uint64_t>(tov::kAppControlTaskId);
  appControl.runtimeTaskId = 1;
  appControl.taskName = zel::wstring_t(tov::kAppControlTaskName);
  appControl.taskType = zel::wstring_t(tov::kAppControlTaskType);
  appControl.displayName = zel::wstring_t(tov::kAppControlTaskName);
  tasks.Add(appControl);
  engine.SetProcessRegistry(&processes);
}

void RegisterEngineServices(ServiceLocator& locator, EngineServices& services) {
  locator.Register<app_ctrl::IEnterpriseApplicationControlEvents2Subscription>(&services.engine);
  locator.Register<app_ctrl::IEnterpriseApplicationController>(&services.engine);
  locator.Register<IEngineObjectCreator>(&services.creator);
  locator.Register<ITaskRegistry>(&services.tasks);
  locator.Register<ITaskInfoProvider>(&services.tasks);
  locator.Register<ITaskTryMutex>(&services.taskTypeLock);
  locator.Register<ICgroupsManager>(&services.cgroups);
  locator.Register<app_core::task_manager::task::ITaskStopEvents>(&services.taskStops);
  locator.Register<IProcessRegistry>(&services.processes);
  locator.Register<tov::INonRemoteEventPublisher>(&services.publisher);

  zel::RefPtr<ICategoriesManager> categories;
  if (ZEL_SUCCEEDED(zel::GetInterface(&locator, categories.Ref()))) services.engine.UseCategoriesManager(categories.Get());
}

void UnregisterEngineServices(ServiceLocator& locator) {
  locator.Remove(app_ctrl::IEnterpriseApplicationControlEvents2Subscription::iid);
  locator.Remove(app_ctrl::IEnterpriseApplicationController::iid);
  locator.Remove(IEngineObjectCreator::iid);
  locator.Remove(ITaskRegistry::iid);
  locator.Remove(ITaskInfoProvider::iid);
  locator.Remove(ITaskTryMutex::iid);
  locator.Remove(ICgroupsManager::iid);
  locator.Remove(app_core::task_manager::task::ITaskStopEvents::iid);
  locator.Remove(IProcessRegistry::iid);
  locator.Remove(tov::INonRemoteEventPublisher::iid);
}

}  // namespace host
