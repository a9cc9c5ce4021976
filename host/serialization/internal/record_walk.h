// What both host serialisers share when they walk a record by its
// descriptor: resolving the descriptor of a nested record, members by
// offset, the nesting limit, and a scratch record that a reader fills before
// the caller's object is touched.
#pragma once

#include <cstddef>
#include <cstdint>

#include "zel/result.h"
#include "zel/serialization/imeta_info.h"
#include "zel/serialization/type_descriptor.h"

namespace host::serialization_detail {

// Records, vectors of records and typed variants nest at most this deep, so
// that hostile input cannot exhaust the stack.
inline constexpr int kMaxDepth = 64;

// A member's type as the walk needs it: the code and, for records, the
// descriptor (checked).
struct ValueType {
  std::uint32_t code = 0;
  const zel::TypeDescriptor* record = nullptr;
};

// Finds and checks the descriptor for `serId`. 0x8000004C when unknown.
zel::result_t FindRecord(zel::IMetaInfoProvider* meta, std::uint32_t serId, const zel::TypeDescriptor** out) noexcept;

// The type of one element of `row` (for a vector row) or of the member
// itself. Checks record sizes against the row or the vector's element size.
zel::result_t ResolveRowType(zel::IMetaInfoProvider* meta, const zel::TypeDescriptorField& row,
                             ValueType* out) noexcept;

inline void* MemberOf(void* record, const zel::TypeDescriptorField& row) noexcept {
  return static_cast<unsigned char*>(record) + row.offset;
}
inline const void* MemberOf(const void* record, const zel::TypeDescriptorField& row) noexcept {
  return static_cast<const unsigned char*>(record) + row.offset;
}

// A default-constructed record of `descriptor` in malloc'd memory, ended by
// its descriptor. Readers fill one and move it into the caller's object only
// when everything was read.
class ScratchRecord {
 public:
  ScratchRecord() = default;
  ScratchRecord(const ScratchRecord&) = delete;
  ScratchRecord& operator=(const ScratchRecord&) = delete;
  ~ScratchRecord();

  // May throw what the record's constructor throws; 0x80000041 without memory.
  zel::result_t Make(const zel::TypeDescriptor* descriptor);
  void* get() const noexcept { return m_object; }
  // Moves the scratch contents into `target` through the descriptor.
  zel::result_t MoveInto(void* target);

 private:
  const zel::TypeDescriptor* m_descriptor = nullptr;
  void* m_object = nullptr;
};

}  // namespace host::serialization_detail
