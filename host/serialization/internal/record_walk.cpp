#include "host/serialization/internal/record_walk.h"

#include <cstdlib>
#include <new>

#include "zel/serialization/field_types.h"
#include "host/serialization/internal/descriptor_check.h"

namespace host::serialization_detail {

zel::result_t FindRecord(zel::IMetaInfoProvider* meta, std::uint32_t serId, const zel::TypeDescriptor** out) noexcept {
  if (meta == nullptr) return zel::result::MetaInformationNotFound;
  const zel::TypeDescriptor* descriptor = nullptr;
  const zel::result_t r = meta->FindDescriptor(serId, &descriptor);
  if (ZEL_FAILED(r)) return r;
  if (descriptor == nullptr) return zel::result::NotFound;
  if (const zel::result_t c = CheckDescriptor(descriptor); ZEL_FAILED(c)) return c;
  *out = descriptor;
  return zel::result::NoError;
}

zel::result_t ResolveRowType(zel::IMetaInfoProvider* meta, const zel::TypeDescriptorField& row,
                             ValueType* out) noexcept {
  ValueType type{row.type, nullptr};
  if (row.type != ser_type::Record) {
    *out = type;
    return zel::result::NoError;
  }
  const bool isVector = row.flags == zel::ser_field_flags::Vector;
  std::uint32_t expectedSize = row.size;
  if (isVector) {
    if (ZEL_FAILED(row.vectorHelper->GetElementSize(&expectedSize))) return zel::result::InvalidType;
    const zel::TypeDescriptor* element = nullptr;
    if (ZEL_SUCCEEDED(row.vectorHelper->GetElementDescriptor(&element)) && element != nullptr) {
      if (const zel::result_t c = CheckDescriptor(element); ZEL_FAILED(c)) return c;
      type.record = element;
    }
  }
  if (type.record == nullptr) {
    const std::uint32_t serId = row.reserved[ser_type::kRecordSerIdSlot];
    if (serId == 0) return zel::result::InvalidType;
    if (const zel::result_t r = FindRecord(meta, serId, &type.record); ZEL_FAILED(r)) return r;
  }
  if (type.record->size != expectedSize) return zel::result::InvalidType;
  *out = type;
  return zel::result::NoError;
}

ScratchRecord::~ScratchRecord() {
  if (m_object == nullptr) return;
  m_descriptor->helper->Destroy(m_object);
  std::free(m_object);
}

zel::result_t ScratchRecord::Make(const zel::TypeDescriptor* descriptor) {
  void* memory = std::malloc(static_cast<std::size_t>(descriptor->size));
  if (memory == nullptr) return zel::result::OutOfMemory;
  try {
    descriptor->helper->ConstructCopy(memory, nullptr);
  } catch (...) {
    std::free(memory);
    throw;
  }
  m_descriptor = descriptor;
  m_object = memory;
  return zel::result::NoError;
}

zel::result_t ScratchRecord::MoveInto(void* target) {
  const zel::result_t r = m_descriptor->helper->Move(m_object, target);
  return ZEL_FAILED(r) ? r : zel::result::NoError;
}

}  // namespace host::serialization_detail
