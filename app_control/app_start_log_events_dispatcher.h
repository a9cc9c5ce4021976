// AppStartLogEventsDispatcher: the fan-out point for application start log
// events. Producers call it as one IApplicationStartLogEvents; it passes each
// call on to every subscriber in order of subscription, never holding a lock
// while a subscriber runs.
#pragma once

#include "app_control/interfaces/iapplication_start_log_events.h"
#include "zel/rtl/event_dispatcher.h"
#include "zel/rtl/objbase.h"

namespace tov::app_control {

class AppStartLogEventsDispatcher
    : public zel::EventDispatcher<app_ctrl::IApplicationStartLogEventsSubscription,
                                  app_ctrl::IApplicationStartLogEvents>,
      public app_ctrl::IApplicationStartLogEvents,
      public zel::ObjectRootEx<zel::DirectServiceStrategy>,
      public zel::NonCopyable {
 public:
  static constexpr std::uint32_t clsid = 0xA17CCC95;
  using interfaces =
      zel::InterfaceList<app_ctrl::IApplicationStartLogEventsSubscription, app_ctrl::IApplicationStartLogEvents>;

  explicit AppStartLogEventsDispatcher(zel::IServiceLocator* serviceLocator);

  // Each goes to every subscriber with the same argument; always 0.
  zel::result_t OnApplicationStartLogged(const void* event) override;
  zel::result_t OnApplicationStartBacklog(const void* events) override;
  zel::result_t OnApplicationStartLogLost(const void* info) override;

 protected:
  ~AppStartLogEventsDispatcher() = default;
};

}  // namespace tov::app_control
