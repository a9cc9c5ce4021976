#include "host/serialization/meta_info_provider.h"

#include <algorithm>
#include <cstring>
#include <mutex>
#include <new>

#include "host/serialization/internal/descriptor_check.h"
#include "host/services/fault_switchboard.h"

namespace host {

zel::RefPtr<MetaInfoProvider> MetaInfoProvider::Create() {
  return MakeHeapObject<MetaInfoProvider>();
}

MetaInfoProvider::~MetaInfoProvider() {
  for (zel::IMetaInfoProvider* p : m_providers) p->Release();
}

std::vector<zel::RefPtr<zel::IMetaInfoProvider>> MetaInfoProvider::Providers() const {
  std::vector<zel::RefPtr<zel::IMetaInfoProvider>> copy;
  std::shared_lock lock(m_mutex);
  copy.reserve(m_providers.size());
  for (zel::IMetaInfoProvider* p : m_providers) copy.emplace_back(p);
  return copy;
}

zel::result_t MetaInfoProvider::FindDescriptor(std::uint32_t serId, const zel::TypeDescriptor** descriptor) {
  if (const zel::result_t fault = FaultAt(FaultPoint::MetaInfoFind)) return fault;
  if (descriptor == nullptr) return zel::result::InvalidArgument;
  {
    std::shared_lock lock(m_mutex);
    if (auto it = m_descriptors.find(serId); it != m_descriptors.end()) {
      *descriptor = it->second;
      return zel::result::NoError;
    }
    if (m_providers.empty()) return zel::result::NotFound;
  }
  try {
    for (const auto& provider : Providers()) {
      const zel::TypeDescriptor* found = nullptr;
      if (ZEL_SUCCEEDED(provider->FindDescriptor(serId, &found)) && found != nullptr) {
        *descriptor = found;
        return zel::result::NoError;
      }
    }
  } catch (const std::bad_alloc&) {
    return zel::result::OutOfMemory;
  }
  return zel::result::NotFound;
}

zel::result_t MetaInfoProvider::FindStructDescriptor(std::uint32_t serId, const zel::TypeDescriptor** descriptor) {
  if (const zel::result_t fault = FaultAt(FaultPoint::MetaInfoFind)) return fault;
  return FindDescriptor(serId, descriptor);
}

zel::result_t MetaInfoProvider::FindDescriptorByName(const char* name, const zel::TypeDescriptor** descriptor) {
  if (const zel::result_t fault = FaultAt(FaultPoint::MetaInfoFind)) return fault;
  if (name == nullptr || descriptor == nullptr) return zel::result::InvalidArgument;
  std::shared_lock lock(m_mutex);
  for (const auto& [id, d] : m_descriptors) {
    if (d->name != nullptr && std::strcmp(d->name, name) == 0) {
      *descriptor = d;
      return zel::result::NoError;
    }
  }
  return zel::result::NotFound;
}

zel::result_t MetaInfoProvider::GetDescriptorCount(std::uint32_t* count) {
  if (count == nullptr) return zel::result::InvalidArgument;
  std::shared_lock lock(m_mutex);
  *count = static_cast<std::uint32_t>(m_descriptors.size());
  return zel::result::NoError;
}

zel::result_t MetaInfoProvider::GetRegisteredIds(zel::types::vector_t<std::uint32_t>* ids) {
  if (ids == nullptr) return zel::result::InvalidArgument;
  try {
    {
      std::shared_lock lock(m_mutex);
      ids->reserve(ids->size() + m_descriptors.size());
      for (const auto& [id, d] : m_descriptors) ids->push_back(id);
    }
    for (const auto& provider : Providers()) {
      zel::RefPtr<zel::IStructMetaInfoRegistry> registry;
      if (ZEL_SUCCEEDED(provider->QueryInterface(zel::IStructMetaInfoRegistry::iid,
                                                 reinterpret_cast<void**>(registry.Ref())))) {
        const zel::result_t r = registry->GetRegisteredIds(ids);
        if (ZEL_FAILED(r)) return r;
      }
    }
  } catch (const std::bad_alloc&) {
    return zel::result::OutOfMemory;
  } catch (const std::length_error&) {
    return zel::result::OutOfMemory;
  }
  return zel::result::NoError;
}

zel::result_t MetaInfoProvider::RegisterDescriptor(const zel::TypeDescriptor* descriptor) {
  if (const zel::result_t r = serialization_detail::CheckDescriptor(descriptor); ZEL_FAILED(r)) return r;
  try {
    std::unique_lock lock(m_mutex);
    auto [it, inserted] = m_descriptors.emplace(descriptor->serId, descriptor);
    if (inserted) return zel::result::NoError;
    return it->second == descriptor ? zel::result::False : zel::result::AlreadyDone;
  } catch (const std::bad_alloc&) {
    return zel::result::OutOfMemory;
  }
}

zel::result_t MetaInfoProvider::UnregisterDescriptor(std::uint32_t serId) {
  std::unique_lock lock(m_mutex);
  return m_descriptors.erase(serId) != 0 ? zel::result::NoError : zel::result::NotFound;
}

zel::result_t MetaInfoProvider::RegisterProvider(zel::IMetaInfoProvider* provider) {
  if (provider == nullptr || provider == static_cast<zel::IMetaInfoProvider*>(this)) {
    return zel::result::InvalidArgument;
  }
  try {
    std::unique_lock lock(m_mutex);
    if (std::find(m_providers.begin(), m_providers.end(), provider) != m_providers.end()) return zel::result::False;
    m_providers.push_back(provider);
  } catch (const std::bad_alloc&) {
    return zel::result::OutOfMemory;
  }
  provider->AddRef();
  return zel::result::NoError;
}

zel::result_t MetaInfoProvider::UnregisterProvider(zel::IMetaInfoProvider* provider) {
  {
    std::unique_lock lock(m_mutex);
    auto it = std::find(m_providers.begin(), m_providers.end(), provider);
    if (it == m_providers.end()) return zel::result::NotFound;
    m_providers.erase(it);
  }
  provider->Release();
  return zel::result::NoError;
}

}  // namespace host
