// tov::app_control::IInventoryStorage: the scan task's writing side of the
// persistent application inventory.
//
// Contract: AddInfo stores one record at once, but the list of ids and the
// timestamp reach the store only at Flush, which commits; Clear removes
// everything it knows of and commits, and always answers 0. The record stays
// the caller's.
#pragma once

#include <cstdint>

#include "tov_common/inventory/application_info.h"
#include "zel/iobject.h"
#include "zel/result.h"

namespace tov::app_control {

class IInventoryStorage : public zel::IObject {
 public:
  static constexpr zel::iid_t iid = 0x5A93B7CE;

  virtual zel::result_t AddInfo(const tov::ApplicationInfo& info) = 0;
  virtual zel::result_t Clear() = 0;
  virtual zel::result_t Flush() = 0;

 protected:
  ~IInventoryStorage() = default;
};

}  // namespace tov::app_control
