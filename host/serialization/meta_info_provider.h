// host::MetaInfoProvider: the host's table of record descriptors, offered as
// zel::IMetaInfoProvider and zel::IStructMetaInfoRegistry. Host features
// register their records' descriptors at start; a loaded module that keeps
// its own descriptors hands its provider over with RegisterProvider, and
// lookups that miss the host's own table ask those providers in turn.
//
// Thread safety: registration and lookup may run concurrently (the table is
// behind a reader-writer lock); providers are asked outside the lock.
#pragma once

#include <cstdint>
#include <map>
#include <shared_mutex>
#include <vector>

#include "host/services/host_object.h"
#include "zel/rtl/objclient.h"
#include "zel/serialization/imeta_info.h"

namespace host {

class MetaInfoProvider final
    : public HeapObject<MetaInfoProvider, zel::IMetaInfoProvider, zel::IStructMetaInfoRegistry> {
 public:
  // A new provider with one reference, owned by the caller.
  static zel::RefPtr<MetaInfoProvider> Create();

  // ---- IMetaInfoProvider -------------------------------------------------------
  zel::result_t FindDescriptor(std::uint32_t serId, const zel::TypeDescriptor** descriptor) override;
  zel::result_t FindDescriptorByName(const char* name, const zel::TypeDescriptor** descriptor) override;
  zel::result_t GetDescriptorCount(std::uint32_t* count) override;

  // ---- IStructMetaInfoRegistry -------------------------------------------------
  // The host's own ids in ascending order, then those of registered providers
  // that also answer IStructMetaInfoRegistry.
  zel::result_t GetRegisteredIds(zel::types::vector_t<std::uint32_t>* ids) override;
  // Validates the field table first (0x8000005D for a bad row). The same
  // descriptor twice gives 1; another descriptor under a taken id 0x80000067.
  zel::result_t RegisterDescriptor(const zel::TypeDescriptor* descriptor) override;
  zel::result_t UnregisterDescriptor(std::uint32_t serId) override;
  zel::result_t FindStructDescriptor(std::uint32_t serId, const zel::TypeDescriptor** descriptor) override;
  // The provider gets a reference until it is unregistered or this object
  // ends. Registering it twice gives 1.
  zel::result_t RegisterProvider(zel::IMetaInfoProvider* provider) override;
  zel::result_t UnregisterProvider(zel::IMetaInfoProvider* provider) override;

 private:
  friend class HeapAccess;
  MetaInfoProvider() = default;
  ~MetaInfoProvider();

  std::vector<zel::RefPtr<zel::IMetaInfoProvider>> Providers() const;

  mutable std::shared_mutex m_mutex;
  std::map<std::uint32_t, const zel::TypeDescriptor*> m_descriptors;
  std::vector<zel::IMetaInfoProvider*> m_providers;  // one reference each
};

}  // namespace host
