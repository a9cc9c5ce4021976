// host::ServiceLocator: the reference host's zel::IServiceLocator. Services
// are registered by interface id and service key; tests can make the
// locator refuse an interface with a chosen code to drive failure paths.
#pragma once

#include <cstdint>
#include <map>
#include <mutex>
#include <utility>

#include "host/services/host_object.h"
#include "zel/iservice_locator.h"

namespace host {

class ServiceLocator final : public OwnedObject<ServiceLocator, zel::IServiceLocator> {
 public:
  ServiceLocator() = default;
  ServiceLocator(const ServiceLocator&) = delete;
  ServiceLocator& operator=(const ServiceLocator&) = delete;
  ~ServiceLocator();

  zel::result_t GetInterface(zel::iid_t iid, std::uint32_t serviceKey, void** out) override;

  // `face` is the service's interface pointer for `iid`; the locator keeps a
  // reference until it is replaced, removed or the locator dies.
  void Register(zel::iid_t iid, std::uint32_t serviceKey, zel::IObject* face);
  template <class I>
  void Register(I* service, std::uint32_t serviceKey = 0) {
    Register(I::iid, serviceKey, service);
  }
  void Remove(zel::iid_t iid, std::uint32_t serviceKey = 0);

  // Fault injection: answer `iid` with `code` (and a null pointer).
  void Refuse(zel::iid_t iid, zel::result_t code = zel::result::InterfaceNotSupported);
  void Allow(zel::iid_t iid);

  std::uint64_t Requests(zel::iid_t iid) const;

 private:
  mutable std::mutex m_mutex;
  std::map<std::pair<zel::iid_t, std::uint32_t>, zel::IObject*> m_services;
  std::map<zel::iid_t, zel::result_t> m_refused;
  std::map<zel::iid_t, std::uint64_t> m_requests;
};

}  // namespace host
