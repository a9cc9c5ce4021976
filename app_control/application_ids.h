// tov::app_control::ApplicationIds: the list of inventory application ids as
// one serialisable record (stored as the "appIdList" node). It is the one
// type that the module's static type registry knows.
//
// Contract: one field, "list", a vector of unsigned 64-bit ids reached by the
// serialisers through its vector helper; empty by default.
#pragma once

#include <cstdint>

#include "zel/serialization/type_descriptor.h"
#include "zel/types/allocator.h"
#include "zel/types/vector.h"

namespace tov::app_control {

struct ApplicationIds {
  static constexpr std::uint32_t SerId = 0xD6BFA3A7;

  zel::types::vector_t<unsigned long, zel::abi_v1_allocator> list;
};

}  // namespace tov::app_control

namespace zel {
template <>
struct StaticTypeDescriptor<tov::app_control::ApplicationIds> {
  static const TypeDescriptor* Get() noexcept;
};
}  // namespace zel
