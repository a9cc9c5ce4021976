// The host services that application control needs from the engine and the
// task layer, as one bundle: the engine (subscription service), its object
// creator, the task registry, the procfs process registry and the event
// publisher. RegisterEngineServices puts them into a host::ServiceLocator.
//
// The locator releases what it holds when it dies, and these services live
// in the bundle: unregister them, or let the locator die first.
#pragma once

#include <cstdio>
#include <string>

#include "host/engine/engine.h"
#include "host/engine/engine_object_creator.h"
#include "host/services/event_publisher.h"
#include "host/services/process_registry.h"
#include "host/services/service_locator.h"
#include "host/services/task_registry.h"

namespace host {

struct EngineServicesOptions {
  std::FILE* eventsOut = nullptr;  // where published events are written; null keeps them in memory
  std::string procRoot = "/proc";
  std::string sysRoot = "/sys";
};

struct EngineServices {
  explicit EngineServices(const EngineServicesOptions& options = {});

  // The engine holds references on the registry: it is declared after it
  // so that it goes first.
  TaskRegistry tasks;
  ProcessRegistry processes;
  EventPublisher publisher;
  engine::Engine engine;
  engine::EngineObjectCreator creator;
};

// Registers, each under service key 0: IEnterpriseApplicationControlEvents2Subscription,
// IEngineObjectCreator, ITaskRegistry (with the application-control task,
// id 21, entered), IProcessRegistry, INonRemoteEventPublisher. When the
// locator already offers ICategoriesManager the engine reads its categories
// from there; that manager must then outlive `services`.
void RegisterEngineServices(ServiceLocator& locator, EngineServices& services);
void UnregisterEngineServices(ServiceLocator& locator);

}  // namespace host
