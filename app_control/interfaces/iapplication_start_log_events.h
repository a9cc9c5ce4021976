// app_ctrl::IApplicationStartLogEvents: the sink of application start log
// events, and its subscription interface. The module only fans these calls
// out; what the argument points at is defined by whoever produces the events
// and is never read here.
#pragma once

#include "zel/iobject.h"

namespace app_ctrl {

class IApplicationStartLogEvents : public zel::IEvents {
 public:
  static constexpr zel::iid_t iid = 0x15D8C7B3;

  // A start was logged.
  virtual zel::result_t OnApplicationStartLogged(const void* event) = 0;
  // A batch of starts that were logged while nobody listened.
  virtual zel::result_t OnApplicationStartBacklog(const void* events) = 0;
  // The log lost events; the argument describes the loss.
  virtual zel::result_t OnApplicationStartLogLost(const void* info) = 0;

 protected:
  ~IApplicationStartLogEvents() = default;
};

class IApplicationStartLogEventsSubscription : public zel::IObject {
 public:
  static constexpr zel::iid_t iid = 0x9A84C54F;

  // Adds `sink` (a reference is taken); duplicates are allowed.
  virtual zel::result_t Subscribe(IApplicationStartLogEvents* sink) = 0;
  // Removes the first occurrence of `sink`; 0x8000004C when absent.
  virtual zel::result_t Unsubscribe(IApplicationStartLogEvents* sink) = 0;

 protected:
  ~IApplicationStartLogEventsSubscription() = default;
};

}  // namespace app_ctrl
