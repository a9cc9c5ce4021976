// app_ctrl::ISettings: the settings face of the engine's application-control
// task. Handing a record over replaces the rules the running task enforces;
// the record stays the caller's, the task keeps a copy.
#pragma once

#include "zel/iobject.h"

namespace app_ctrl {

struct EnterpriseApplicationControlSettings;

class ISettings : public zel::IObject {
 public:
  static constexpr zel::iid_t iid = 0x8E23511B;

  // Replaces the task's settings with a copy of `settings`. On failure the
  // task keeps what it had.
  virtual zel::result_t SetSettings(const EnterpriseApplicationControlSettings* settings) = 0;

 protected:
  ~ISettings() = default;
};

}  // namespace app_ctrl
