// The host's binary record form, driven only by type descriptors.
//
// Layout (all numbers little-endian):
//   header   magic "ZRSB" | u16 version (1) | u16 flags (0) | u32 serId of the
//            record | u32 payload length | u32 CRC-32 of the payload
//   payload  the record's fields in table order, without names or tags:
//            fixed-size numbers as they are, bool as one byte 0/1,
//            strings as u32 unit count + units (UTF-16 units for wide ones),
//            vectors as u32 count + elements, nested records as their fields,
//            variant_t as u32 tag + value (a typed object as u32 serId + fields).
// A reader accepts a blob only when it is consumed exactly and every count
// fits into the bytes that are left.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "zel/iallocator.h"
#include "zel/result.h"
#include "zel/serialization/imeta_info.h"
#include "zel/serialization/type_descriptor.h"

namespace host::serialization_detail {

inline constexpr unsigned char kBinaryMagic[4] = {'Z', 'R', 'S', 'B'};
inline constexpr std::uint16_t kBinaryVersion = 1;
inline constexpr std::size_t kBinaryHeaderSize = 20;

struct BinaryOptions {
  // Off only for fuzzing, where a checksum would hide everything behind it.
  bool verifyChecksum = true;
};

// Appends the header and payload of `record` to `out`. May throw std::bad_alloc.
zel::result_t EncodeBinary(zel::IMetaInfoProvider* meta, const zel::TypeDescriptor* descriptor, const void* record,
                           std::vector<unsigned char>& out);

// Reads a whole blob into `record`, which is left untouched unless the result
// is a success. `consumed` gets the blob's length on success. Typed objects
// inside variants are made from `allocator`.
zel::result_t DecodeBinary(zel::IMetaInfoProvider* meta, zel::IAllocator* allocator,
                           const zel::TypeDescriptor* descriptor, const unsigned char* data, std::size_t size,
                           void* record, const BinaryOptions& options, std::uint32_t* consumed);

}  // namespace host::serialization_detail
