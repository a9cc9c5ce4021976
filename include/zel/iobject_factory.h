// zel::IObjectFactory: what zelGetObjectFactory hands out, one per call.
#pragma once

#include "zel/iservice_locator.h"

namespace zel {

class IObjectFactory : public IObject {
 public:
  static constexpr iid_t iid = 0x80077A33;

  // Creates one new object and gives its interface `iid` (0: the first one)
  // with one reference owned by the caller. The object takes its services
  // from `serviceLocator`. 0x80000001 with *out null for an iid the class
  // does not have; the allocator's or constructor's failure code otherwise.
  virtual result_t CreateInstance(IServiceLocator* serviceLocator, iid_t iid, void** out) = 0;

 protected:
  ~IObjectFactory() = default;
};

}  // namespace zel
