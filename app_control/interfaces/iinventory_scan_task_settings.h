// tov::app_control::IInventoryScanTaskSettings: the settings face of the
// inventory scan task. A running scan keeps the settings it started with;
// what is set here is read at the next Start.
#pragma once

#include "tov_common/settings/inventory_scan_settings.h"
#include "zel/iobject.h"

namespace tov::app_control {

class IInventoryScanTaskSettings : public zel::IObject {
 public:
  static constexpr zel::iid_t iid = 0xEAE7F675;

  // Copies `settings` into the task; the record stays the caller's. Always 0.
  virtual zel::result_t SetSettings(const tov::settings::InventoryScanSettings* settings) = 0;
  // Copies the task's settings into `settings`. Always 0.
  virtual zel::result_t GetSettings(tov::settings::InventoryScanSettings* settings) = 0;

 protected:
  ~IInventoryScanTaskSettings() = default;
};

}  // namespace tov::app_control
