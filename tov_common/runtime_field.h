// The two field records of a product event, tov::RuntimeField and
// tov::AdditionalField: a field id and its typed value. Both are
// serialisable: each has a type descriptor that the host's serialisers read.
//
// Contract: the field id defaults to -1 and the value to empty (tag 0). The
// records move without throwing, so a vector of them moves its elements
// when it grows.
#pragma once

#include <cstdint>
#include <type_traits>

#include "zel/serialization/type_descriptor.h"
#include "zel/serialization/variant.h"

namespace tov {

struct RuntimeField {
  static constexpr std::uint32_t SerId = 0xD1345CF5;

  std::int32_t name = -1;  // the field id
  zel::variant_t data;
};

struct AdditionalField {
  static constexpr std::uint32_t SerId = 0x0EFA8E30;

  std::int32_t name = -1;
  zel::variant_t data;
};

static_assert(std::is_nothrow_move_constructible_v<RuntimeField>);
static_assert(std::is_nothrow_move_constructible_v<AdditionalField>);

}  // namespace tov

namespace zel {
template <>
struct StaticTypeDescriptor<tov::RuntimeField> {
  static const TypeDescriptor* Get() noexcept;
};
template <>
struct StaticTypeDescriptor<tov::AdditionalField> {
  static const TypeDescriptor* Get() noexcept;
};
}  // namespace zel
