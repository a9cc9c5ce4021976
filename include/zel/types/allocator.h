// Allocators for the framework containers. A container either holds a
// counted reference to the host's IAllocator (which may be null, in which
// case malloc and free serve) or uses a stateless malloc/free allocator.
// Whichever allocator gave a block is the one that takes it back.
#pragma once

#include <cstddef>
#include <cstdlib>
#include <new>
#include <utility>

#include "zel/iallocator.h"

namespace zel {

// The C heap as a memory resource.
struct malloc_free_memory_resource {
  static void* allocate(std::size_t bytes) noexcept { return std::malloc(bytes == 0 ? 1 : bytes); }
  static void deallocate(void* pointer) noexcept { std::free(pointer); }
};

// No state: every instance serves from the same resource, so blocks may move
// freely between containers.
template <class Resource>
struct stateless_allocator {
  stateless_allocator() noexcept = default;

  void* allocate(std::size_t bytes) {
    void* p = Resource::allocate(bytes);
    if (p == nullptr) throw std::bad_alloc();
    return p;
  }
  void deallocate(void* pointer) noexcept { Resource::deallocate(pointer); }
  IAllocator* get() const noexcept { return nullptr; }

  friend bool operator==(const stateless_allocator&, const stateless_allocator&) noexcept { return true; }
};

struct abi_v2_allocator : stateless_allocator<malloc_free_memory_resource> {};

// A counted reference to an IAllocator; null means malloc/free.
class abi_v1_allocator {
 public:
  abi_v1_allocator() noexcept = default;
  explicit abi_v1_allocator(IAllocator* allocator) noexcept : m_allocator(allocator) {
    if (m_allocator != nullptr) m_allocator->AddRef();
  }
  abi_v1_allocator(const abi_v1_allocator& other) noexcept : abi_v1_allocator(other.m_allocator) {}
  abi_v1_allocator(abi_v1_allocator&& other) noexcept : m_allocator(std::exchange(other.m_allocator, nullptr)) {}
  abi_v1_allocator& operator=(const abi_v1_allocator& other) noexcept {
    abi_v1_allocator(other).swap(*this);
    return *this;
  }
  abi_v1_allocator& operator=(abi_v1_allocator&& other) noexcept {
    abi_v1_allocator(std::move(other)).swap(*this);
    return *this;
  }
  ~abi_v1_allocator() {
    if (m_allocator != nullptr) m_allocator->Release();
  }

  void swap(abi_v1_allocator& other) noexcept { std::swap(m_allocator, other.m_allocator); }

  // Never returns null: a refusal is std::bad_alloc.
  void* allocate(std::size_t bytes) {
    void* p = m_allocator != nullptr ? m_allocator->Alloc(bytes) : std::malloc(bytes == 0 ? 1 : bytes);
    if (p == nullptr) throw std::bad_alloc();
    return p;
  }
  void deallocate(void* pointer) noexcept {
    if (pointer == nullptr) return;
    if (m_allocator != nullptr)
      m_allocator->Free(pointer);
    else
      std::free(pointer);
  }
  IAllocator* get() const noexcept { return m_allocator; }

  friend bool operator==(const abi_v1_allocator& a, const abi_v1_allocator& b) noexcept {
    return a.m_allocator == b.m_allocator;
  }

 private:
  IAllocator* m_allocator = nullptr;
};

}  // namespace zel
