// tov::app_control::IAppControlTaskSettings: the settings face of the
// application control task. The host hands new product settings over here;
// they are converted and passed to the running engine task. Settings are
// never read back from the task.
#pragma once

#include "tov_common/settings/app_control_settings.h"
#include "zel/iobject.h"

namespace tov::app_control {

class IAppControlTaskSettings : public zel::IObject {
 public:
  static constexpr zel::iid_t iid = 0x6ABA5BA3;

  // Converts `settings` and hands the result to the engine task. The record
  // stays the caller's. On failure the engine keeps what it had.
  virtual zel::result_t SetSettings(const tov::settings::AppControlSettings* settings) = 0;
  // Always 0x80000043: the task does not give its settings out.
  virtual zel::result_t GetSettings(tov::settings::AppControlSettings* settings) = 0;

 protected:
  ~IAppControlTaskSettings() = default;
};

}  // namespace tov::app_control
