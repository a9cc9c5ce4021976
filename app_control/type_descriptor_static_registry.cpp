#include "app_control/type_descriptor_static_registry.h"

#include "app_control/application_ids.h"
#include "zel/rtl/error_handling/exceptions.h"

namespace tov::app_control::AppControlSdMapNamespace {
namespace {

// Set during static initialisation, like the descriptor's own rows.
const zel::TypeDescriptor* const g_applicationIdsDescriptor = zel::StaticTypeDescriptor<ApplicationIds>::Get();
}  // namespace

TypeDescriptorStaticRegistry::TypeDescriptorStaticRegistry(zel::IServiceLocator* serviceLocator)
    : ObjectRootEx(serviceLocator) {}

zel::result_t TypeDescriptorStaticRegistry::GetRegisteredIds(zel::types::vector_t<std::uint32_t>* ids) {
  if (ids == nullptr) return zel::result::InvalidArgument;
  try {
    // A vector without any room gets exactly the one slot needed.
    if (ids->capacity() == 0) ids->reserve(1);
    ids->push_back(ApplicationIds::SerId);
    return 0;
  } catch (...) {
    return zel::ResultFromCurrentException(nullptr, nullptr);
  }
}

zel::result_t TypeDescriptorStaticRegistry::FindDescriptor(std::uint32_t serId,
                                                           const zel::TypeDescriptor** descriptor) {
  if (serId != ApplicationIds::SerId) return zel::result::NotFound;
  if (descriptor == nullptr) return zel::result::InvalidArgument;
  *descriptor = g_applicationIdsDescriptor;
  return 0;
}

zel::result_t TypeDescriptorStaticRegistry::FindStructDescriptor(std::uint32_t serId,
                                                                 const zel::TypeDescriptor** descriptor) {
  return FindDescriptor(serId, descriptor);
}

zel::result_t TypeDescriptorStaticRegistry::RegisterDescriptor(const zel::TypeDescriptor*) { return zel::result::NotImplemented; }
zel::result_t TypeDescriptorStaticRegistry::UnregisterDescriptor(std::uint32_t) { return zel::result::NotImplemented; }
zel::result_t TypeDescriptorStaticRegistry::RegisterProvider(zel::IMetaInfoProvider*) { return zel::result::NotImplemented; }
zel::result_t TypeDescriptorStaticRegistry::UnregisterProvider(zel::IMetaInfoProvider*) { return zel::result::NotImplemented; }
zel::result_t TypeDescriptorStaticRegistry::FindDescriptorByName(const char*, const zel::TypeDescriptor**) {
  return zel::result::NotImplemented;
}
zel::result_t TypeDescriptorStaticRegistry::GetDescriptorCount(std::uint32_t*) { return zel::result::NotImplemented; }

}  // namespace tov::app_control::AppControlSdMapNamespace
