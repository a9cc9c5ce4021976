#include "host/cli/host_session.h"

#include "tov_common/settings/settings_descriptors.h"
#include "host/cli/cli.h"
#include "host/cli/record_codecs.h"
#include "tov_common/categories/category_descriptors.h"
#include "tov_common/inventory/application_info.h"

namespace host::cli {

HostSession::HostSession(std::uint32_t traceLevel, const std::string& dbPath, std::FILE* events) : tracer(traceLevel) {
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
    engine = std::make_unique<EngineServices>(options);
    RegisterEngineServices(locator, *engine);
  }
}

HostSession::~HostSession() {
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
