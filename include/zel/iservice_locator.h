// zel::IServiceLocator: the only way out of the module. Handed in at creation;
// every host service is asked for by interface id and a service key.
#pragma once

#include "zel/iobject.h"

namespace zel {

class IServiceLocator : public IObject {
 public:
  static constexpr iid_t iid = 0x1B0E51D3;

  // serviceKey 0 selects the default instance. On success *out holds a
  // reference the caller owns; on failure *out is null and the result negative.
  virtual result_t GetInterface(iid_t iid, std::uint32_t serviceKey, void** out) = 0;

 protected:
  ~IServiceLocator() = default;
};

}  // namespace zel
