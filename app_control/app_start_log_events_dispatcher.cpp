#include "app_control/app_start_log_events_dispatcher.h"

namespace tov::app_control {

using Events = app_ctrl::IApplicationStartLogEvents;

AppStartLogEventsDispatcher::AppStartLogEventsDispatcher(zel::IServiceLocator* serviceLocator)
    : zel::ObjectRootEx<zel::DirectServiceStrategy>(serviceLocator) {}

zel::result_t AppStartLogEventsDispatcher::OnApplicationStartLogged(const void* event) {
  return Deliver(&Events::OnApplicationStartLogged, event);
}

zel::result_t AppStartLogEventsDispatcher::OnApplicationStartBacklog(const void* events) {
  return Deliver(&Events::OnApplicationStartBacklog, events);
}

zel::result_t AppStartLogEventsDispatcher::OnApplicationStartLogLost(const void* info) {
  return Deliver(&Events::OnApplicationStartLogLost, info);
}

}  // namespace tov::app_control
