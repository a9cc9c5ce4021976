// zel::IAllocator: the host's memory service. Every block goes back to the
// allocator that gave it; where a container holds a null allocator, malloc
// and free serve instead.
#pragma once

#include <cstddef>

#include "zel/iobject.h"

namespace zel {

class IAllocator : public IObject {
 public:
  static constexpr iid_t iid = 0x9CCA5603;

  // A block of at least `size` bytes, or null.
  virtual void* Alloc(std::size_t size) = 0;
  // Grows or shrinks a block like realloc; the module never calls it.
  virtual void* Realloc(void* pointer, std::size_t size) = 0;
  // Gives a block back; null is ignored.
  virtual void Free(void* pointer) = 0;

 protected:
  ~IAllocator() = default;
};

}  // namespace zel
