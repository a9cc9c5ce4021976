// tov::INonRemoteEventPublisher: hands a product event to the host for
// publishing on this machine. The event stays the caller's; the publisher
// copies what it needs before it returns. The event's text and field list
// may come from an allocator of the module's own: a copy kept after the call
// keeps its allocator, and with it the module (zelCanUnloadModule says not
// yet), until the copy is destroyed.
#pragma once

#include "app_control/interfaces/runtime_event.h"
#include "zel/iobject.h"

namespace tov {

class INonRemoteEventPublisher : public zel::IObject {
 public:
  static constexpr zel::iid_t iid = 0xDE3A4E4A;

  // Negative when the event could not be published; it is then lost.
  virtual zel::result_t PublishEvent(RuntimeEvent* event) = 0;

 protected:
  ~INonRemoteEventPublisher() = default;
};

}  // namespace tov
