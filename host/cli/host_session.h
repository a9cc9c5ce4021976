// Everything the module asks a host for, made and registered in one place:
// allocator, tracer, serialisers with the settings and category expression
// descriptors, the SQLite service and categories managers, the key-value
// store that keeps the inventory, the password database, the file services
// of the inventory scan (file factory, path matchers, format recogniser)
// and, on request, the reference engine with its event publisher.
// Teardown unregisters in the reverse order, so the module never sees a
// service die under it. On request the engine's hash cache is kept in the
// store too (UseHashCacheStore), so that what one acctl hashed the next
// one does not.
#pragma once

#include <chrono>
#include <cstdio>
#include <memory>
#include <string>

#include "host/engine/engine_services.h"
#include "host/engine/hash_cache_store.h"
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

  // How often a long-running command writes its learned hashes back: a
  // long-running service every 30 s; a scan more often, so that its writes
  // overlap its walk rather than follow it.
  std::chrono::milliseconds hashCacheSaveInterval{30'000};

  // Opens the store's hash cache for the engine and, when `load`, fills the
  // engine's cache from it. Nothing for a private (":memory:") store or a
  // session without an engine. A table that can't be used costs one warning
  // line on stderr and the cache: the command works on without it.
  void UseHashCacheStore(bool load);
  // Writes back what the engine's cache found or learned. `force` false:
  // only once hashCacheSaveInterval has passed since the last write. A
  // failed write warns (once) and ends the use of the stored cache.
  void SaveHashCache(bool force = true);

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
  engine::HashCacheStore hashStore;

 private:
  void HashCacheUnusable(const char* doing, zel::result_t r);

  std::string m_dbPath;
  bool m_hashCacheWarned = false;
  std::chrono::steady_clock::time_point m_hashCacheSaved;
};

}  // namespace host::cli
