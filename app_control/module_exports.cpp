// The module's three exported entry points; everything else is hidden.
#include "app_control/module_entry.h"

#define AC_EXPORT extern "C" __attribute__((visibility("default")))

AC_EXPORT zel::result_t zelGetObjectFactory(zel::IServiceLocator* serviceLocator, std::uint32_t classId,
                                            zel::IObjectFactory** factory) {
  return tov::app_control::GetObjectFactory(serviceLocator, classId, factory);
}

AC_EXPORT zel::result_t zelCreateObject(std::uint32_t classId, void** arguments, zel::IObject** object) {
  return tov::app_control::CreateObject(classId, arguments, object);
}

AC_EXPORT zel::result_t zelCanUnloadModule() { return tov::app_control::CanUnloadModule(); }
