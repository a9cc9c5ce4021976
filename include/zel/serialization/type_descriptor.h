// Type descriptors: the static tables through which the host's serialisers
// handle records they have never seen.
//
// Contract:
//  - A TypeDescriptor names a record (serId, name), gives its size, its field
//    table and the helper object that constructs, copies, moves and destroys
//    it. Both records are plain data whose layout the host reads directly:
//    fields stay in this order and nothing is added.
//  - A field table ends with a row whose `flags` is kFieldTableEnd. Names and
//    offsets are compile-time constants; `type`, `flags`, `size` and
//    `vectorHelper` of the other rows are completed once at module load by
//    FillTypeDescriptorFields, behind a flag that stops a second run.
//  - SerObjDescriptorHelper and SerVectorHelper are interfaces called by
//    position: no virtual destructor, operations in their fixed order.
//  - Descriptors are read-only once loaded, so lookups need no lock.
#pragma once

#include <cstddef>
#include <cstdint>

#include "zel/iallocator.h"
#include "zel/result.h"

namespace zel {

class SerObjDescriptorHelper;
class SerVectorHelper;

// Type codes of a field row that this module writes; the host owns the rest.
namespace ser_field_type {
inline constexpr std::uint32_t Int32 = 18;    // a 32-bit number
inline constexpr std::uint32_t UInt64 = 19;   // a 64-bit unsigned number
inline constexpr std::uint32_t Variant = 40;  // a variant_t
}  // namespace ser_field_type

namespace ser_field_flags {
inline constexpr std::uint32_t None = 0;
// The member is a vector of `type`, reached through `vectorHelper`.
inline constexpr std::uint32_t Vector = 0x2000;
}  // namespace ser_field_flags

// `flags` of the row that ends a field table.
inline constexpr std::uint32_t kFieldTableEnd = 0xFFFFFFFFu;

struct TypeDescriptorField {
  std::uint32_t type;
  const char* name;  // the member's name in serialised form
  std::uint32_t flags;
  std::uint32_t offset;  // position of the member in the record
  std::uint32_t size;    // size of the member in bytes
  std::uint32_t reserved[4];
  SerVectorHelper* vectorHelper;  // null unless flags has ser_field_flags::Vector
  std::uint64_t reserved2;
};

struct TypeDescriptor {
  std::uint32_t serId;  // the key by which the type is found
  const char* name;     // the type's short name
  std::uint64_t size;   // sizeof the record
  TypeDescriptorField* fields;
  SerObjDescriptorHelper* helper;
};

static_assert(sizeof(TypeDescriptorField) == 64, "field rows are read by position");
static_assert(offsetof(TypeDescriptorField, vectorHelper) == 48);
static_assert(sizeof(TypeDescriptor) == 40, "descriptors are read by position");

// A compile-time row: only the name and the offset, the run-time part left
// zero for FillTypeDescriptorFields.
constexpr TypeDescriptorField MakeFieldRow(const char* name, std::size_t offset) noexcept {
  return TypeDescriptorField{0, name, 0, static_cast<std::uint32_t>(offset), 0, {0, 0, 0, 0}, nullptr, 0};
}
// The row that ends a table.
inline constexpr TypeDescriptorField kFieldTableTerminator{0, nullptr, kFieldTableEnd, 0, 0, {0, 0, 0, 0}, nullptr, 0};

// The run-time part of one row.
struct TypeDescriptorFieldFill {
  std::uint32_t type;
  std::uint32_t flags;
  std::uint32_t size;
  SerVectorHelper* vectorHelper;
};

// Completes `rows` (up to the terminator) from `fills`, one fill per row,
// unless `filled` is already set. Gives true when it did the work. Runs at
// load, single-threaded; afterwards the rows are read-only.
inline bool FillTypeDescriptorFields(TypeDescriptorField* rows, const TypeDescriptorFieldFill* fills,
                                     bool& filled) noexcept {
  if (filled) return false;
  for (std::size_t i = 0; rows[i].flags != kFieldTableEnd; ++i) {
    rows[i].type = fills[i].type;
    rows[i].flags = fills[i].flags;
    rows[i].size = fills[i].size;
    rows[i].vectorHelper = fills[i].vectorHelper;
  }
  filled = true;
  return true;
}

// Number of rows before the terminator.
inline std::size_t FieldCount(const TypeDescriptorField* rows) noexcept {
  std::size_t n = 0;
  while (rows[n].flags != kFieldTableEnd) ++n;
  return n;
}

// The operations of one record type; SerObjDescriptorImpl<T> implements them.
class SerObjDescriptorHelper {
 public:
  // Makes a T in `memory`: a copy of `source`, or the default T if null.
  virtual void ConstructCopy(void* memory, const void* source) = 0;
  // sizeof(T) from `allocator` plus ConstructCopy; null when the allocator
  // gives null. The memory goes back if the copy throws.
  virtual void* NewCopy(const void* source, IAllocator* allocator) = 0;
  // Runs the destructor; the memory stays.
  virtual void Destroy(void* object) = 0;
  // Copy assignment *target = *source.
  virtual void Assign(const void* source, void* target) = 0;
  // Moves *source into *target, leaving source empty; gives 1.
  virtual result_t Move(void* source, void* target) = 0;

 protected:
  ~SerObjDescriptorHelper() = default;
};

// The operations of a vector member; SerVectorHelperImpl<V> implements them.
// Every operation gives 0x80000046 for a null pointer argument.
class SerVectorHelper {
 public:
  // Trims or grows; new elements are zero. When the capacity is too small the
  // new one is max(2 * old count, new count), at least 4.
  virtual result_t Resize(void* vector, std::uint32_t count) = 0;
  virtual result_t GetCount(const void* vector, std::uint32_t* count) = 0;
  // 0x80000046 for an index at or behind the count.
  virtual result_t GetElement(void* vector, std::uint32_t index, void** element) = 0;
  // The element type's descriptor; a plain number has none: null and 0x8000004C.
  virtual result_t GetElementDescriptor(const TypeDescriptor** descriptor) = 0;
  virtual result_t GetElementSize(std::uint32_t* size) = 0;

 protected:
  ~SerVectorHelper() = default;
};

// Serialisation id of a record type: the record's `static constexpr
// std::uint32_t SerId`, or a specialisation of this trait.
template <class T>
struct SerObjId {
  static constexpr std::uint32_t value = T::SerId;
};

// The module's own descriptor of T, for types that have one statically:
// specialise with `static const TypeDescriptor* Get() noexcept`.
template <class T>
struct StaticTypeDescriptor;

}  // namespace zel
