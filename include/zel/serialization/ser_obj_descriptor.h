// The generic implementations of the descriptor helpers:
// SerObjDescriptorImpl<T> (construct, copy, move, destroy a record T) and
// SerVectorHelperImpl<V> (reach the elements of a vector member V).
//
// Contract: both objects carry no data, so one static instance per type
// serves every descriptor. The record helper may throw what T's copy throws;
// the vector helper never throws: exceptions become codes.
#pragma once

#include <cstdint>
#include <limits>
#include <new>
#include <type_traits>
#include <utility>

#include "zel/iallocator.h"
#include "zel/rtl/error_handling/exceptions.h"
#include "zel/serialization/type_descriptor.h"

namespace zel {

template <class T>
class SerObjDescriptorImpl : public SerObjDescriptorHelper {
 public:
  void ConstructCopy(void* memory, const void* source) override {
    if (source == nullptr) {
      ::new (memory) T();
    } else {
      ::new (memory) T(*static_cast<const T*>(source));
    }
  }

  void* NewCopy(const void* source, IAllocator* allocator) override {
    if (allocator == nullptr) return nullptr;
    void* memory = allocator->Alloc(sizeof(T));
    if (memory == nullptr) return nullptr;
    try {
      // Through the virtual call, so that a subclass's construction is used.
      this->ConstructCopy(memory, source);
    } catch (...) {
      allocator->Free(memory);
      throw;
    }
    return memory;
  }

  void Destroy(void* object) override { static_cast<T*>(object)->~T(); }

  void Assign(const void* source, void* target) override {
    *static_cast<T*>(target) = *static_cast<const T*>(source);
  }

  result_t Move(void* source, void* target) override {
    T& from = *static_cast<T*>(source);
    *static_cast<T*>(target) = std::move(from);
    // A moved-from record is left in its empty state whatever T's move does.
    from = T();
    return 1;
  }
};

template <class V>
class SerVectorHelperImpl : public SerVectorHelper {
  using Element = typename V::value_type;

 public:
  result_t Resize(void* vector, std::uint32_t count) override {
    if (vector == nullptr) return result::InvalidArgument;
    try {
      // vector_t grows to max(2 * old count, new count), at least 4, and
      // value-initialises the new elements.
      static_cast<V*>(vector)->resize(count);
      return 0;
    } catch (...) {
      return ResultFromCurrentException(nullptr, nullptr);
    }
  }

  result_t GetCount(const void* vector, std::uint32_t* count) override {
    if (vector == nullptr || count == nullptr) return result::InvalidArgument;
    *count = static_cast<std::uint32_t>(static_cast<const V*>(vector)->size());
    return 0;
  }

  result_t GetElement(void* vector, std::uint32_t index, void** element) override {
    if (vector == nullptr || element == nullptr) return result::InvalidArgument;
    V& v = *static_cast<V*>(vector);
    if (index >= v.size()) return result::InvalidArgument;
    *element = &v[index];
    return 0;
  }

  result_t GetElementDescriptor(const TypeDescriptor** descriptor) override {
    if (descriptor == nullptr) return result::InvalidArgument;
    if constexpr (requires { StaticTypeDescriptor<Element>::Get(); }) {
      *descriptor = StaticTypeDescriptor<Element>::Get();
      return 0;
    } else {
      *descriptor = nullptr;
      return result::NotFound;
    }
  }

  result_t GetElementSize(std::uint32_t* size) override {
    if (size == nullptr) return result::InvalidArgument;
    *size = static_cast<std::uint32_t>(sizeof(Element));
    return 0;
  }
};

}  // namespace zel
