// The settings records' own view of a category id as a serialisable record:
// the 16 bytes as two little-endian 64-bit words, "low" then "high". Private
// to the settings records; the category model itself carries no descriptor.
#pragma once

#include <cstdint>

#include "zel/serialization/type_descriptor.h"

namespace tov::settings::detail {

inline constexpr std::uint32_t kCategoryIdSerId = 0x48D1F27A;

const zel::TypeDescriptor* CategoryIdDescriptor() noexcept;

}  // namespace tov::settings::detail

#include "zel/serialization/ser_obj_descriptor.h"

namespace tov::settings::detail {

// A vector-of-category-ids member: elements are described by the record above.
template <class V>
class CategoryIdVectorHelper final : public zel::SerVectorHelperImpl<V> {
 public:
  zel::result_t GetElementDescriptor(const zel::TypeDescriptor** descriptor) override {
    if (descriptor == nullptr) return zel::result::InvalidArgument;
    *descriptor = CategoryIdDescriptor();
    return 0;
  }
};

}  // namespace tov::settings::detail
