// Finding a record type's descriptor by its serialisation id, and making
// typed pointers (zel::anydescrptr) to records from the descriptor found.
//
// Contract:
//  - GetTypeDescriptor asks the locator's IMetaInfoProvider first and falls
//    back to its IStructMetaInfoRegistry; it never gives null, it raises
//    zel::CheckResultFailedException: "No meta info provider" when the
//    locator has neither, "This structure is not registered at meta info
//    provider" (with "zel.typeid") when the registry doesn't know the id.
//  - make_anydescrptr refers to the caller's value; it owns nothing.
//  - assign_anydescrptr / make_owning_anydescrptr copy the value onto the
//    locator's IAllocator ("Can't get interface" when it has none).
#pragma once

#include <cstdint>

#include "zel/iservice_locator.h"
#include "zel/serialization/type_descriptor.h"
#include "zel/util/anydescrptr.h"

namespace zel {

const TypeDescriptor* GetTypeDescriptor(IServiceLocator* sl, std::uint32_t serId);

// A referring pointer to `value`, with the descriptor of T's id.
template <class T>
anydescrptr make_anydescrptr(IServiceLocator* sl, const T& value) {
  return anydescrptr(const_cast<T*>(&value), GetTypeDescriptor(sl, SerObjId<T>::value));
}

namespace detail {
// The locator's allocator; raises zel::GetInterfaceException without one.
RefPtr<IAllocator> GetAllocatorOrThrow(IServiceLocator* sl);
}  // namespace detail

// Replaces what `target` holds with an owned copy of `value` made by the
// descriptor from the locator's allocator. On any failure `target` stays.
template <class T>
void assign_anydescrptr(anydescrptr& target, IServiceLocator* sl, const T& value) {
  const RefPtr<IAllocator> allocator = detail::GetAllocatorOrThrow(sl);
  const TypeDescriptor* descriptor = GetTypeDescriptor(sl, SerObjId<T>::value);
  target.assign_copy(&value, descriptor, allocator.Get());
}

template <class T>
anydescrptr make_owning_anydescrptr(IServiceLocator* sl, const T& value) {
  anydescrptr result;
  assign_anydescrptr(result, sl, value);
  return result;
}

}  // namespace zel
