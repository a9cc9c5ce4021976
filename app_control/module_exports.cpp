// The module's three exported entry points.
#include "app_control/module_entry.h"
