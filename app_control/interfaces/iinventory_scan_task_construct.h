// tov::app_control::IInventoryScanTaskConstruct: how the host gives an
// inventory scan task, made through the class table, its first settings.
#pragma once

#include "tov_common/settings/inventory_scan_settings.h"
#include "zel/iobject.h"

namespace tov::app_control {

class IInventoryScanTaskConstruct : public zel::IObject {
 public:
  static constexpr zel::iid_t iid = 0x919B4B37;

  // Copies `settings`; the record stays the caller's. Takes effect at the
  // next Start. Always 0.
  virtual zel::result_t Construct(const tov::settings::InventoryScanSettings* settings) = 0;

 protected:
  ~IInventoryScanTaskConstruct() = default;
};

}  // namespace tov::app_control
