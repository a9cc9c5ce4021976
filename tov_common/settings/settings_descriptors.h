// All type descriptors of the settings records, the product's and the
// engine's, for a host that registers them by id (a nested record row names
// its element only by serialisation id).
#pragma once

#include <span>

#include "zel/serialization/type_descriptor.h"

namespace tov::settings {

std::span<const zel::TypeDescriptor* const> SettingsRecordDescriptors() noexcept;

}  // namespace tov::settings
