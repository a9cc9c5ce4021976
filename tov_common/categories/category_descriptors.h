// Type descriptors of the five category expression classes. They carry no
// field rows: an expression travels as a whole object (copied and destroyed
// through its helper), never field by field. A host registers them with its
// meta-information provider so that category readers (the JSON codec, the
// categories store) can make expression objects by class id.
#pragma once

#include <cstdint>
#include <span>

#include "zel/serialization/type_descriptor.h"

namespace tov::tools {

// File information, linked category, storage type, version, and-combination.
std::span<const zel::TypeDescriptor* const> CategoryExpressionDescriptors() noexcept;

// The descriptor of the expression class `serId`, or null for another id.
const zel::TypeDescriptor* CategoryExpressionDescriptor(std::uint32_t serId) noexcept;

}  // namespace tov::tools
