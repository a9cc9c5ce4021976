// Checks a record descriptor against the host's field type codes before a
// serialiser trusts its offsets and sizes: every row must carry a known code,
// a member that lies inside the record, the member size that the code
// demands, and a vector helper where the row says vector.
#pragma once

#include <cstdint>

#include "zel/result.h"
#include "zel/serialization/type_descriptor.h"

namespace host::serialization_detail {

// 0 when the row is usable inside a record of `recordSize` bytes; 0x8000005D otherwise.
zel::result_t CheckRow(const zel::TypeDescriptorField& row, std::uint64_t recordSize) noexcept;
// Checks every row of `descriptor` (not the records it nests).
zel::result_t CheckDescriptor(const zel::TypeDescriptor* descriptor) noexcept;
// Member size that `code` demands, 0 for an unknown code; records have no
// fixed size and give 0 too.
std::uint32_t MemberSize(std::uint32_t code) noexcept;

}  // namespace host::serialization_detail
