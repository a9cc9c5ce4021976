// Making the module's factory-made objects (inventory storage, scan task)
// from acctl: through the loaded module's zelGetObjectFactory, as the service
// process does.
#pragma once

#include <cstdint>
#include <string>

#include "host/cli/cli.h"
#include "app_control/interfaces/iinventory_info_provider.h"
#include "app_control/module_entry.h"
#include "host/cli/host_session.h"
#include "host/module/module_loader.h"
#include "host/serialization/meta_info_provider.h"
#include "zel/serialization/imeta_info.h"
#include "zel/iobject_factory.h"
#include "zel/rtl/objclient.h"

namespace host::cli {

// The `I` face of a new object of `classId`; null after an "acctl: <what>
// failed" line.
template <class I>
zel::RefPtr<I> CreateModuleObject(const LoadedModule& module, zel::IServiceLocator* locator, std::uint32_t classId,
                                  const char* what) {
  zel::IObjectFactory* factory = nullptr;
  zel::result_t r = module.GetObjectFactory(locator, classId, &factory);
  if (ZEL_FAILED(r)) {
    Fail(what, r);
    return nullptr;
  }
  const auto held = zel::RefPtr<zel::IObjectFactory>::Adopt(factory);
  void* out = nullptr;
  r = held->CreateInstance(locator, I::iid, &out);
  if (ZEL_FAILED(r)) {
    Fail(what, r);
    return nullptr;
  }
  return zel::RefPtr<I>::Adopt(static_cast<I*>(out));
}

// The module's own record descriptors (its type registry) joined to the
// host's meta-information provider for as long as this object lives; the
// inventory storage needs them for its list of ids. `Ok()` is false after
// an "acctl:" line.
class ModuleRecords {
 public:
  ModuleRecords(const LoadedModule& module, zel::IServiceLocator* locator, MetaInfoProvider& provider)
      : m_provider(provider),
        m_registry(CreateModuleObject<zel::IMetaInfoProvider>(
            module, locator, tov::app_control::kTypeDescriptorStaticRegistryClassId, "loading the module's records")) {
    if (m_registry) m_provider.RegisterProvider(m_registry.Get());
  }
  ~ModuleRecords() {
    if (m_registry) m_provider.UnregisterProvider(m_registry.Get());
  }
  ModuleRecords(const ModuleRecords&) = delete;
  ModuleRecords& operator=(const ModuleRecords&) = delete;

  bool Ok() const noexcept { return static_cast<bool>(m_registry); }

 private:
  MetaInfoProvider& m_provider;
  zel::RefPtr<zel::IMetaInfoProvider> m_registry;
};

// The stored inventory opened for reading through the module, with the
// session and the module's records it needs kept alive beside it (members
// end in reverse order: the reader first). `reader` is null after an
// "acctl: <step> failed" line.
struct InventoryReading {
  InventoryReading(const LoadedModule& module, const GlobalOptions& options, const std::string& db)
      : session(options.traceLevel, db, nullptr), records(module, &session.locator, *session.serialization.metaInfo) {
    if (records.Ok()) {
      reader = CreateModuleObject<tov::IInventoryInfoProvider>(
          module, &session.locator, tov::app_control::kInventoryStorageClassId, "opening the inventory");
    }
  }

  HostSession session;
  ModuleRecords records;
  zel::RefPtr<tov::IInventoryInfoProvider> reader;
};

}  // namespace host::cli
