// The two lookup interfaces through which a serialisation id becomes a
// TypeDescriptor. The host offers both; the module adds its own types through
// its registry object, which answers both.
//
// Contract: FindDescriptor stores the pointer and gives 0 for a known id,
// 0x8000004C otherwise with the output untouched. Operations stand in their
// fixed order; the ones this module does not use carry names of our choosing.
#pragma once

#include <cstdint>

#include "zel/iobject.h"
#include "zel/serialization/type_descriptor.h"
#include "zel/types/vector.h"

namespace zel {

class IMetaInfoProvider : public IObject {
 public:
  static constexpr iid_t iid = 0xFE7DA4E6;

  virtual result_t FindDescriptor(std::uint32_t serId, const TypeDescriptor** descriptor) = 0;
  // Not used by this module; its registry answers 0x80000043.
  virtual result_t FindDescriptorByName(const char* name, const TypeDescriptor** descriptor) = 0;
  virtual result_t GetDescriptorCount(std::uint32_t* count) = 0;

 protected:
  ~IMetaInfoProvider() = default;
};

class IStructMetaInfoRegistry : public IObject {
 public:
  static constexpr iid_t iid = 0xA53230CB;

  // Appends the ids of all known types. 0x80000041 when out of memory.
  virtual result_t GetRegisteredIds(types::vector_t<std::uint32_t>* ids) = 0;
  virtual result_t FindDescriptor(std::uint32_t serId, const TypeDescriptor** descriptor) = 0;
  // Not used by this module; its registry answers 0x80000043.
  virtual result_t RegisterDescriptor(const TypeDescriptor* descriptor) = 0;
  virtual result_t UnregisterDescriptor(std::uint32_t serId) = 0;
  // The same lookup as FindDescriptor.
  virtual result_t FindStructDescriptor(std::uint32_t serId, const TypeDescriptor** descriptor) = 0;
  // Not used by this module; its registry answers 0x80000043.
  virtual result_t RegisterProvider(IMetaInfoProvider* provider) = 0;
  virtual result_t UnregisterProvider(IMetaInfoProvider* provider) = 0;

 protected:
  ~IStructMetaInfoRegistry() = default;
};

}  // namespace zel
