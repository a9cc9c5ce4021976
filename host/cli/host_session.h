// Everything the module asks a host for, made and registered in one place:
// allocator, tracer, serialisers with the settings and category expression
// descriptors, the SQLite service and categories managers, the key-value
// store that keeps the inventory, the password database, the file services
// of the inventory scan (file factory, path matchers, format recogniser)
// and, on request, the reference engine with its event publisher.
// Teardown unregisters in the reverse order, so the module never sees a
// service die under it.
#pragma once

#include <cstdio>
#include <memory>
#include <string>

#include "host/engine/engine_services.h"
#include "host/files/file_services.h"
#include "host/serialization/serialization_services.h"
#include "host/services/categories_manager.h"
#include "host/services/counting_allocator.h"
#include "host/services/pwdb.h"
#include "host/services/service_locator.h"
#include "host/services/service_manager.h"
#include "host/services/stderr_tracer.h"
#include "host/storage/key_value_store.h"

namespace host::cli {

class HostSession {
 public:
  // Opens the three stores on `dbPath` (":memory:" for private ones); UserError
  // when they can't be opened. `events` null: no engine services.
  HostSession(std::uint32_t traceLevel, const std::string& dbPath, std::FILE* events);
  HostSession(const HostSession&) = delete;
  HostSession& operator=(const HostSession&) = delete;
  ~HostSession();

  CountingAllocator allocator;
  StderrTracer tracer;
  ServiceLocator locator;
  SerializationServices serialization;
  Pwdb pwdb;
  ServiceManager serviceManager;
  CategoriesManager categories{&locator};
  KeyValueStore keyValueStore;
  FileServices files;
  std::unique_ptr<EngineServices> engine;
};

}  // namespace host::cli
