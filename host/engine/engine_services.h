// The host services that application control and the inventory scan need
// from the engine and the task layer, as one bundle: the engine (subscription
// service and controller), its object creator, the task registry (also the
// task info provider), the task-type lock, the cgroups manager, the stop
// notice receiver, the procfs process registry and the event publisher.
// RegisterEngineServices puts them into a host::ServiceLocator.
//
// The locator releases what it holds when it dies, and these services live
// in the bundle: unregister them, or let the locator die first.
#pragma once

#include <cstdio>
#include <string>

#include "host/engine/engine.h"
#include "host/engine/engine_object_creator.h"
#include "host/services/cgroups_manager.h"
#include "host/services/event_publisher.h"
#include "host/services/process_registry.h"
#include "host/services/service_locator.h"
#include "host/services/task_registry.h"
#include "host/services/task_stop_receiver.h"
#include "host/services/task_try_mutex.h"

namespace host {

struct EngineServicesOptions {
  std::FILE* eventsOut = nullptr;  // where published events are written; null keeps them in memory
  std::string procRoot = "/proc";
  std::string sysRoot = "/sys";
  std::string cgroupRoot;  // empty: the cgroup2 mount of <procRoot>/self/mountinfo
  std::size_t hashCacheCapacity = engine::HashCache::kDefaultCapacity;
};

struct EngineServices {
  explicit EngineServices(const EngineServicesOptions& options = {});

  // The engine holds references on the registry: it is declared after it
  // so that it goes first.
  TaskRegistry tasks;
  TaskTryMutex taskTypeLock;
  CgroupsManager cgroups;
  TaskStopReceiver taskStops;
  ProcessRegistry processes;
  EventPublisher publisher;
  engine::Engine engine;
  engine::EngineObjectCreator creator;
};

// Registers, each under service key 0: IEnterpriseApplicationControlEvents2Subscription,
// IEnterpriseApplicationController, IEngineObjectCreator, ITaskRegistry and
// ITaskInfoProvider (with the application-control task, id 21, entered),
// ITaskTryMutex, ICgroupsManager, ITaskStopEvents, IProcessRegistry,
// INonRemoteEventPublisher. When the
// locator already offers ICategoriesManager the engine reads its categories
// from there; that manager must then outlive `services`.
void RegisterEngineServices(ServiceLocator& locator, EngineServices& services);
void UnregisterEngineServices(ServiceLocator& locator);

}  // namespace host
