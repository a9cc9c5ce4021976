// Stored forms of the two service-settings records the module updates but
// whose descriptors it keeps to itself: the engine controller's settings and
// the application exclusion list. acctl keeps them as small JSON documents
// (categories in the categories document form), readable with any SQLite
// shell.
#pragma once

#include "host/services/service_manager.h"
#include "zel/iservice_locator.h"

namespace host::cli {

// `objects` makes the category expressions read back (a reference is kept).
void RegisterRecordCodecs(ServiceManager& manager, zel::IServiceLocator* objects);

}  // namespace host::cli
