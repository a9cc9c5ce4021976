// app_ctrl::IEnterpriseApplicationControlEvents2Subscription: how a sink
// starts and stops receiving the engine's application-control events.
#pragma once

#include "app_control/interfaces/ienterprise_application_control_events2.h"
#include "zel/iobject.h"

namespace app_ctrl {

class IEnterpriseApplicationControlEvents2Subscription : public zel::IObject {
 public:
  static constexpr zel::iid_t iid = 0x6BE45E22;

  // Adds `sink`; the service holds a reference until Unsubscribe. A sink
  // subscribed twice is told twice.
  virtual zel::result_t Subscribe(IEnterpriseApplicationControlEvents2* sink) = 0;
  // Removes one subscription of `sink`; 0x8000004C when there is none. A
  // delivery already under way may still finish after it returns.
  virtual zel::result_t Unsubscribe(IEnterpriseApplicationControlEvents2* sink) = 0;

 protected:
  ~IEnterpriseApplicationControlEvents2Subscription() = default;
};

}  // namespace app_ctrl
