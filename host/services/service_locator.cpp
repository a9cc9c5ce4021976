#include "host/services/service_locator.h"

#include "host/services/fault_switchboard.h"

namespace host {

ServiceLocator::~ServiceLocator() {
  for (auto& [key, face] : m_services) face->Release();
}

zel::result_t ServiceLocator::GetInterface(zel::iid_t iid, std::uint32_t serviceKey, void** out) {
  if (out == nullptr) return zel::result::InvalidArgument;
  *out = nullptr;
  if (const zel::result_t fault = FaultAt(FaultPoint::LocatorGetInterface)) return fault;
  zel::IObject* face = nullptr;
  {
    std::lock_guard lock(m_mutex);
    ++m_requests[iid];
    if (auto refused = m_refused.find(iid); refused != m_refused.end()) return refused->second;
    if (iid == zel::IServiceLocator::iid && serviceKey == 0) {
      face = this;
    } else {
      auto it = m_services.find({iid, serviceKey});
      if (it == m_services.end()) return zel::result::InterfaceNotSupported;
      face = it->second;
    }
    face->AddRef();  // under the lock, so a concurrent Remove cannot free it first
  }
  *out = face;
  return zel::result::NoError;
}

void ServiceLocator::Register(zel::iid_t iid, std::uint32_t serviceKey, zel::IObject* face) {
  face->AddRef();
  zel::IObject* old = nullptr;
  {
    std::lock_guard lock(m_mutex);
    auto& slot = m_services[{iid, serviceKey}];
    old = std::exchange(slot, face);
  }
  if (old != nullptr) old->Release();
}

void ServiceLocator::Remove(zel::iid_t iid, std::uint32_t serviceKey) {
  zel::IObject* old = nullptr;
  {
    std::lock_guard lock(m_mutex);
    auto it = m_services.find({iid, serviceKey});
    if (it == m_services.end()) return;
    old = it->second;
    m_services.erase(it);
  }
  old->Release();
}

void ServiceLocator::Refuse(zel::iid_t iid, zel::result_t code) {
  std::lock_guard lock(m_mutex);
  m_refused[iid] = code;
}

void ServiceLocator::Allow(zel::iid_t iid) {
  std::lock_guard lock(m_mutex);
  m_refused.erase(iid);
}

std::uint64_t ServiceLocator::Requests(zel::iid_t iid) const {
  std::lock_guard lock(m_mutex);
  auto it = m_requests.find(iid);
  return it == m_requests.end() ? 0 : it->second;
}

}  // namespace host
