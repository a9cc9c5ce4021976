#include "host/serialization/internal/descriptor_check.h"

#include "zel/serialization/field_types.h"
#include "zel/types/string.h"
#include "zel/serialization/variant.h"

namespace host::serialization_detail {

std::uint32_t MemberSize(std::uint32_t code) noexcept {
  switch (code) {
    case ser_type::String:
      return sizeof(zel::string_t);
    case ser_type::WString:
      return sizeof(zel::wstring_t);
    case ser_type::Variant:
      return sizeof(zel::variant_t);
    default:
      return ser_type::FixedSize(code);
  }
}

zel::result_t CheckRow(const zel::TypeDescriptorField& row, std::uint64_t recordSize) noexcept {
  if (row.name == nullptr || row.name[0] == '\0') return zel::result::InvalidType;
  if (!ser_type::IsKnown(row.type)) return zel::result::InvalidType;
  if (static_cast<std::uint64_t>(row.offset) + row.size > recordSize) return zel::result::InvalidType;
  if (row.flags == zel::ser_field_flags::Vector) {
    if (row.vectorHelper == nullptr) return zel::result::InvalidType;
    std::uint32_t elementSize = 0;
    if (ZEL_FAILED(row.vectorHelper->GetElementSize(&elementSize)) || elementSize == 0) return zel::result::InvalidType;
    const std::uint32_t expected = MemberSize(row.type);
    if (expected != 0 && elementSize != expected) return zel::result::InvalidType;
    return zel::result::NoError;
  }
  if (row.flags != zel::ser_field_flags::None) return zel::result::InvalidType;
  if (row.type == ser_type::Record) {
    return row.reserved[ser_type::kRecordSerIdSlot] != 0 && row.size != 0 ? zel::result::NoError
                                                                          : zel::result::InvalidType;
  }
  return row.size == MemberSize(row.type) ? zel::result::NoError : zel::result::InvalidType;
}

zel::result_t CheckDescriptor(const zel::TypeDescriptor* descriptor) noexcept {
  if (descriptor == nullptr || descriptor->fields == nullptr || descriptor->helper == nullptr ||
      descriptor->size == 0) {
    return zel::result::InvalidArgument;
  }
  for (const zel::TypeDescriptorField* row = descriptor->fields; row->flags != zel::kFieldTableEnd; ++row) {
    if (const zel::result_t r = CheckRow(*row, descriptor->size); ZEL_FAILED(r)) return r;
  }
  return zel::result::NoError;
}

}  // namespace host::serialization_detail
