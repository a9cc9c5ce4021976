#include "host/cli/host_session.h"

#include "tov_common/settings/settings_descriptors.h"
#include "host/cli/cli.h"
#include "host/cli/record_codecs.h"
#include "tov_common/categories/category_descriptors.h"
#include "tov_common/inventory/application_info.h"

namespace host::cli {

namespace {
constexpr const char* kPrivateStore = ":memory:";
}  // namespace

HostSession::HostSession(std::uint32_t traceLevel, const std::string& dbPath, std::FILE* events)
    : tracer(traceLevel), m_dbPath(dbPath) {
  locator.Register<zel::IAllocator>(&allocator);
  locator.Register<zel::ITracer>(&tracer);
  serialization = RegisterSerializationServices(locator);
  for (const zel::TypeDescriptor* d : tov::settings::SettingsRecordDescriptors())
    serialization.metaInfo->RegisterDescriptor(d);
  for (const zel::TypeDescriptor* d : tov::tools::CategoryExpressionDescriptors())
    serialization.metaInfo->RegisterDescriptor(d);
  for (const zel::TypeDescriptor* d : tov::InventoryRecordDescriptors()) serialization.metaInfo->RegisterDescriptor(d);

  CheckStoreMode(dbPath);
  serviceManager.UseBinarySerializer(&locator);
  RegisterRecordCodecs(serviceManager, &locator);
  if (ZEL_FAILED(serviceManager.Open(dbPath))) throw UserError("cannot open the settings store " + dbPath);
  if (ZEL_FAILED(categories.Open(dbPath))) throw UserError("cannot open the categories store " + dbPath);
  if (ZEL_FAILED(keyValueStore.Open(dbPath))) throw UserError("cannot open the inventory store " + dbPath);

  locator.Register<IPwdb>(&pwdb);
  locator.Register<app_core::facade::IServiceManager>(&serviceManager);
  locator.Register<ICategoriesManager>(&categories);
  locator.Register<app_core::component::IKeyValueStorage>(&keyValueStore);
  RegisterFileServices(locator, files);
  if (events != nullptr) {
    EngineServicesOptions options;
    options.eventsOut = events;
    // With a store to keep them in, the engine remembers as many hashes as
    // the store holds: a scan's whole tree.
    if (dbPath != kPrivateStore) options.hashCacheCapacity = engine::HashCacheStore::kDefaultRowLimit;
    engine = std::make_unique<EngineServices>(options);
    RegisterEngineServices(locator, *engine);
  }
}

void HostSession::HashCacheUnusable(const char* doing, zel::result_t r) {
  hashStore.Close();
  if (m_hashCacheWarned) return;
  m_hashCacheWarned = true;
  char text[zel::kMaxPrintedResult];
  const std::size_t n = zel::PrintResult(zel::FormatResult(r), text);
  std::fprintf(stderr, "acctl: warning: %s the hash cache in %s failed (%.*s): going on without it\n", doing,
               m_dbPath.c_str(), static_cast<int>(n), text);
}

void HostSession::UseHashCacheStore(bool load) {
  if (!engine || m_dbPath == kPrivateStore) return;
  zel::result_t r = hashStore.Open(m_dbPath);
  if (ZEL_SUCCEEDED(r) && load) r = hashStore.LoadInto(engine->engine.Hashes());
  if (ZEL_FAILED(r)) HashCacheUnusable(load ? "loading" : "opening", r);
  m_hashCacheSaved = std::chrono::steady_clock::now();
}

void HostSession::SaveHashCache(bool force) {
  if (!engine || !hashStore.IsOpen()) return;
  const auto now = std::chrono::steady_clock::now();
  if (!force && now - m_hashCacheSaved < hashCacheSaveInterval) return;
  m_hashCacheSaved = now;
  if (const zel::result_t r = hashStore.Save(engine->engine.Hashes()); ZEL_FAILED(r)) HashCacheUnusable("writing", r);
}

HostSession::~HostSession() {
  hashStore.Close();
  if (engine) {
    UnregisterEngineServices(locator);
    engine.reset();
  }
  UnregisterFileServices(locator);
  for (zel::iid_t iid : {app_core::component::IKeyValueStorage::iid, ICategoriesManager::iid,
                         app_core::facade::IServiceManager::iid, IPwdb::iid}) {
    locator.Remove(iid);
  }
  keyValueStore.Close();
  categories.Close();
  serviceManager.Close();
}

}  // namespace host::cli
