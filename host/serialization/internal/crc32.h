// CRC-32 (IEEE 802.3, reflected, the zlib/PNG variant) of a byte range; the
// binary record form carries one over its payload so that a corrupted blob is
// refused instead of read into wrong values.
#pragma once

#include <cstddef>
#include <cstdint>

namespace host::serialization_detail {

// `seed` is a previous result when the data comes in pieces.
std::uint32_t Crc32(const void* data, std::size_t size, std::uint32_t seed = 0) noexcept;

}  // namespace host::serialization_detail
