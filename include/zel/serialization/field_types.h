// Field type codes shared by every serialiser: the `type` word of a TypeDescriptorField row,
// and what the host's serialisers expect to find at the row's offset.
//
// The framework itself fixes three codes (Int32 18, UInt64 19, Variant 40);
// every other code below belongs to the host and is chosen here, once. A
// descriptor that uses a code not listed, or whose row `size` differs from the
// member size given here, is refused by the serialisers (0x8000005D).
//
// Code  Name       Member type                         Row size
//   10  Bool       bool                                 1
//   11  Int8       std::int8_t                          1
//   12  UInt8      std::uint8_t                         1
//   13  Int16      std::int16_t                         2
//   14  UInt16     std::uint16_t                        2
//   17  UInt32     std::uint32_t                        4
//   18  Int32      std::int32_t                         4
//   19  UInt64     std::uint64_t                        8
//   20  Int64      std::int64_t                         8
//   30  String     zel::basic_string_t<char>  (bytes, UTF-8 by convention)
//   31  WString    zel::basic_string_t<char16_t> (UTF-16 units, may be ill-formed)
//   40  Variant    zel::variant_t
//   50  Record     a nested record; the row's reserved[0] holds its serId,
//                  looked up through the meta-information provider; the row
//                  size must equal the descriptor's size
//
// Vectors: a row whose flags carry 0x2000 (zel::ser_field_flags::Vector) is a
// vector whose element has the row's `type`, reached only through the row's
// SerVectorHelper (the element size it reports must match the table above).
// For a vector of records (type 50) the element descriptor comes from the
// helper's GetElementDescriptor, or, when the helper has none, from the serId
// in reserved[0].
#pragma once

#include <cstddef>
#include <cstdint>

#include "zel/serialization/type_descriptor.h"

namespace host::ser_type {

inline constexpr std::uint32_t Bool = 10;
inline constexpr std::uint32_t Int8 = 11;
inline constexpr std::uint32_t UInt8 = 12;
inline constexpr std::uint32_t Int16 = 13;
inline constexpr std::uint32_t UInt16 = 14;
inline constexpr std::uint32_t UInt32 = 17;
inline constexpr std::uint32_t Int32 = zel::ser_field_type::Int32;    // 18
inline constexpr std::uint32_t UInt64 = zel::ser_field_type::UInt64;  // 19
inline constexpr std::uint32_t Int64 = 20;
inline constexpr std::uint32_t String = 30;
inline constexpr std::uint32_t WString = 31;
inline constexpr std::uint32_t Variant = zel::ser_field_type::Variant;  // 40
inline constexpr std::uint32_t Record = 50;

// Index into TypeDescriptorField::reserved that carries a nested record's serId.
inline constexpr std::size_t kRecordSerIdSlot = 0;

// Member size of a fixed-size code; 0 for String, WString, Variant and Record
// (whose sizes come from the compiled types) and for unknown codes.
constexpr std::uint32_t FixedSize(std::uint32_t code) noexcept {
  switch (code) {
    case Bool:
    case Int8:
    case UInt8:
      return 1;
    case Int16:
    case UInt16:
      return 2;
    case UInt32:
    case Int32:
      return 4;
    case UInt64:
    case Int64:
      return 8;
    default:
      return 0;
  }
}

constexpr bool IsKnown(std::uint32_t code) noexcept {
  return FixedSize(code) != 0 || code == String || code == WString || code == Variant || code == Record;
}

// A row for a nested record member, with the run-time part already set.
constexpr zel::TypeDescriptorField RecordRow(const char* name, std::size_t offset, std::size_t size,
                                             std::uint32_t serId) noexcept {
  return zel::TypeDescriptorField{Record,  name, 0, static_cast<std::uint32_t>(offset), static_cast<std::uint32_t>(size),
                                  {serId, 0, 0, 0}, nullptr, 0};
}

// A row for any other member, with the run-time part already set.
constexpr zel::TypeDescriptorField Row(std::uint32_t code, const char* name, std::size_t offset, std::size_t size,
                                       std::uint32_t flags = 0, zel::SerVectorHelper* vectorHelper = nullptr,
                                       std::uint32_t elementSerId = 0) noexcept {
  return zel::TypeDescriptorField{code,  name, flags, static_cast<std::uint32_t>(offset), static_cast<std::uint32_t>(size),
                                  {elementSerId, 0, 0, 0}, vectorHelper, 0};
}

}  // namespace host::ser_type
