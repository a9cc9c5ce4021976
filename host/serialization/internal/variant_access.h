// How the host's serialisers see a zel::variant_t: one view that resolves the
// by-reference tags to the value they point at (so both forms write the
// owning tag), the value shape of each owning tag, and setters that build an
// owning value from what a reader found. Interface references (tag 13) have
// no serialised form.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "zel/iallocator.h"
#include "zel/result.h"
#include "zel/serialization/type_descriptor.h"

namespace host::serialization_detail {

enum class VariantKind { Empty, Scalar, String, WString, Bytes, Object };

struct VariantView {
  std::uint32_t tag = 0;  // always an owning tag
  VariantKind kind = VariantKind::Empty;
  unsigned char scalar[16] = {};  // little-endian value of scalarSize bytes
  std::uint32_t scalarSize = 0;
  std::string_view text;
  std::u16string_view wtext;
  const unsigned char* bytes = nullptr;
  std::size_t byteCount = 0;
  const void* object = nullptr;
  const zel::TypeDescriptor* descriptor = nullptr;
};

// 0x80000042 for an interface reference or an unknown tag, 0x80000046 for a
// null by-reference pointer.
zel::result_t ViewVariant(const void* variant, VariantView* view) noexcept;

// The shape of an owning tag that has a serialised form; false otherwise.
bool ClassifyOwningTag(std::uint32_t tag, VariantKind* kind, std::uint32_t* scalarSize) noexcept;

// Setters on a zel::variant_t; each ends the old value first. The string
// setters may throw std::bad_alloc.
void SetVariantEmpty(void* variant) noexcept;
zel::result_t SetVariantScalar(void* variant, std::uint32_t tag, const unsigned char* value) noexcept;
zel::result_t SetVariantString(void* variant, std::string_view text);
zel::result_t SetVariantWString(void* variant, std::u16string_view text);
zel::result_t SetVariantBytes(void* variant, const unsigned char* data, std::size_t size);
// Moves the contents of `scratch` into a new object from `allocator` that the
// variant owns from then on.
zel::result_t SetVariantObject(void* variant, const zel::TypeDescriptor* descriptor, void* scratch,
                               zel::IAllocator* allocator);

}  // namespace host::serialization_detail
