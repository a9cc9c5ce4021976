#include "zel/util/rtl_impl/anyptr_helpers.h"

#include "zel/rtl/error_handling/checks.h"
#include "zel/rtl/error_handling/exceptions.h"
#include "zel/rtl/objclient.h"
#include "zel/serialization/imeta_info.h"

namespace zel {

const TypeDescriptor* GetTypeDescriptor(IServiceLocator* sl, std::uint32_t serId) {
  const TypeDescriptor* descriptor = nullptr;
  {
    RefPtr<IMetaInfoProvider> provider;
    if (ZEL_SUCCEEDED(GetInterface(sl, provider.Ref())) &&
        ZEL_SUCCEEDED(provider->FindDescriptor(serId, &descriptor)) && descriptor != nullptr) {
      return descriptor;
    }
  }
  RefPtr<IStructMetaInfoRegistry> registry;
  const result_t fetched = GetInterface(sl, registry.Ref());
  if (ZEL_FAILED(fetched)) throw CheckResultFailedException(__FILE__, __LINE__, "No meta info provider", fetched);
  descriptor = nullptr;
  const result_t r = registry->FindDescriptor(serId, &descriptor);
  if (ZEL_FAILED(r) || descriptor == nullptr) {
    throw CheckResultFailedException(__FILE__, __LINE__, "This structure is not registered at meta info provider",
                                     ZEL_FAILED(r) ? r : result::NotFound, serId);
  }
  return descriptor;
}

namespace detail {
RefPtr<IAllocator> GetAllocatorOrThrow(IServiceLocator* sl) {
  RefPtr<IAllocator> allocator;
  GetInterface(sl, allocator);
  return allocator;
}
}  // namespace detail

}  // namespace zel
