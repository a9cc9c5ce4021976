// zel::anydescrptr: a record pointer that carries its TypeDescriptor and,
// when it owns the record, the allocator the record came from.
//
// Contract:
//  - Layout: object, descriptor, allocator (a counted IAllocator reference);
//    the host reads it by position.
//  - With an allocator it owns the object: its end runs the descriptor's
//    Destroy and gives the memory back to that allocator. Without one it
//    merely refers, and its end leaves the object alone.
//  - Copy: an empty source gives an empty copy; a referring source with an
//    object cannot be deep-copied and raises std::bad_alloc; an owning source
//    is copied through the descriptor's NewCopy with the source's allocator
//    (a null result raises std::bad_alloc), sharing descriptor and allocator.
//  - Move hands everything over and leaves the source empty.
#pragma once

#include <new>
#include <utility>

#include "zel/iallocator.h"
#include "zel/rtl/objclient.h"
#include "zel/serialization/type_descriptor.h"

namespace zel {

class anydescrptr {
 public:
  anydescrptr() noexcept = default;

  // Refers to `object` without owning it.
  anydescrptr(void* object, const TypeDescriptor* descriptor) noexcept
      : m_object(object), m_descriptor(descriptor) {}

  // Takes ownership of `object`, which was made from `allocator`; the
  // allocator gets one reference of its own.
  anydescrptr(void* object, const TypeDescriptor* descriptor, IAllocator* allocator) noexcept
      : m_object(object), m_descriptor(descriptor), m_allocator(allocator) {}

  anydescrptr(const anydescrptr& other) {
    if (other.m_object == nullptr) return;
    m_object = other.NewCopyOfObject();
    m_descriptor = other.m_descriptor;
    m_allocator = other.m_allocator;
  }

  anydescrptr(anydescrptr&& other) noexcept
      : m_object(std::exchange(other.m_object, nullptr)),
        m_descriptor(std::exchange(other.m_descriptor, nullptr)),
        m_allocator(std::move(other.m_allocator)) {}

  anydescrptr& operator=(const anydescrptr& other) {
    if (this != &other) {
      anydescrptr copy(other);
      swap(copy);
    }
    return *this;
  }

  anydescrptr& operator=(anydescrptr&& other) noexcept {
    if (this != &other) {
      anydescrptr taken(std::move(other));
      swap(taken);
    }
    return *this;
  }

  ~anydescrptr() { reset(); }

  bool IsValid() const noexcept { return m_object != nullptr; }
  explicit operator bool() const noexcept { return IsValid(); }

  void* get() const noexcept { return m_object; }
  template <class T>
  T* get_as() const noexcept {
    return static_cast<T*>(m_object);
  }
  const TypeDescriptor* descriptor() const noexcept { return m_descriptor; }
  IAllocator* allocator() const noexcept { return m_allocator.Get(); }
  bool owns() const noexcept { return m_allocator.Get() != nullptr; }

  // Ends the object if owned, then clears all three fields.
  void reset() noexcept {
    if (m_object != nullptr && m_allocator) {
      // A record without a descriptor has no known destructor: its memory
      // alone goes back.
      if (m_descriptor != nullptr && m_descriptor->helper != nullptr) m_descriptor->helper->Destroy(m_object);
      m_allocator->Free(m_object);
    }
    m_object = nullptr;
    m_descriptor = nullptr;
    m_allocator.Reset();
  }

  // Makes an owned copy of `value` with `descriptor`'s NewCopy from
  // `allocator`, then releases what was held and takes the copy. A null
  // allocator, descriptor or result raises std::bad_alloc and leaves *this.
  void assign_copy(const void* value, const TypeDescriptor* descriptor, IAllocator* allocator) {
    if (allocator == nullptr || descriptor == nullptr || descriptor->helper == nullptr) throw std::bad_alloc();
    void* copy = descriptor->helper->NewCopy(value, allocator);
    if (copy == nullptr) throw std::bad_alloc();
    reset();
    m_object = copy;
    m_descriptor = descriptor;
    m_allocator = RefPtr<IAllocator>(allocator);
  }

  void swap(anydescrptr& other) noexcept {
    std::swap(m_object, other.m_object);
    std::swap(m_descriptor, other.m_descriptor);
    std::swap(m_allocator, other.m_allocator);
  }

 private:
  void* NewCopyOfObject() const {
    if (!m_allocator || m_descriptor == nullptr || m_descriptor->helper == nullptr) throw std::bad_alloc();
    void* copy = m_descriptor->helper->NewCopy(m_object, m_allocator.Get());
    if (copy == nullptr) throw std::bad_alloc();
    return copy;
  }

  void* m_object = nullptr;
  const TypeDescriptor* m_descriptor = nullptr;
  RefPtr<IAllocator> m_allocator;
};

static_assert(sizeof(anydescrptr) == 3 * sizeof(void*), "anydescrptr is read by position");

inline void swap(anydescrptr& a, anydescrptr& b) noexcept { a.swap(b); }

}  // namespace zel
