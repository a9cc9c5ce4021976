// TypeDescriptorStaticRegistry (class 0x3C705D66): the module's answer to the
// host's type lookups. It tells the host the serialisation ids of the
// records the module owns and gives their static descriptors.
//
// Contract: answers IStructMetaInfoRegistry (ids 0 and 0xA53230CB) and
// IMetaInfoProvider (0xFE7DA4E6). A lookup is a comparison against the one
// type it knows, ApplicationIds (0xD6BFA3A7); 0x8000004C for any other id
// with the output untouched. Registration operations answer 0x80000043. It
// never raises; its constructor keeps the locator's IAllocator and raises
// zel::GetInterfaceException without one.
#pragma once

#include <cstdint>

#include "zel/noncopyable.h"
#include "zel/rtl/objbase.h"
#include "zel/serialization/imeta_info.h"

namespace tov::app_control::AppControlSdMapNamespace {

class TypeDescriptorStaticRegistry : public zel::IStructMetaInfoRegistry,
                                     public zel::IMetaInfoProvider,
                                     public zel::ObjectRootEx<zel::ServiceStrategyAdapter<zel::AllocatorProvider>>,
                                     public zel::NonCopyable {
 public:
  static constexpr std::uint32_t clsid = 0x3C705D66;
  using interfaces = zel::InterfaceList<zel::IStructMetaInfoRegistry, zel::IMetaInfoProvider>;

  explicit TypeDescriptorStaticRegistry(zel::IServiceLocator* serviceLocator);

  // IStructMetaInfoRegistry
  zel::result_t GetRegisteredIds(zel::types::vector_t<std::uint32_t>* ids) override;
  // Both interfaces' lookup.
  zel::result_t FindDescriptor(std::uint32_t serId, const zel::TypeDescriptor** descriptor) override;
  zel::result_t RegisterDescriptor(const zel::TypeDescriptor* descriptor) override;
  zel::result_t UnregisterDescriptor(std::uint32_t serId) override;
  zel::result_t FindStructDescriptor(std::uint32_t serId, const zel::TypeDescriptor** descriptor) override;
  zel::result_t RegisterProvider(zel::IMetaInfoProvider* provider) override;
  zel::result_t UnregisterProvider(zel::IMetaInfoProvider* provider) override;

  // IMetaInfoProvider
  zel::result_t FindDescriptorByName(const char* name, const zel::TypeDescriptor** descriptor) override;
  zel::result_t GetDescriptorCount(std::uint32_t* count) override;

 protected:
  ~TypeDescriptorStaticRegistry() = default;
};

}  // namespace tov::app_control::AppControlSdMapNamespace
