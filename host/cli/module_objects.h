// Making the module's factory-made objects (inventory storage, scan task)
// from acctl: through the loaded module's zelGetObjectFactory, as the service
// process does.
#pragma once

#include <cstdint>

#include "host/cli/cli.h"
#include "host/module/module_loader.h"
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

}  // namespace host::cli
