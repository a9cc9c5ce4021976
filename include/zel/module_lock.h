// ModuleLockCount: the process-wide count of living module objects, and the
// base that raises it for the whole life of an object.
//
// Every object class has zel::ObjectModuleAutoLockTyped<T> as its first base,
// so the count rises before T's constructor runs and falls after T's
// destructor has run, a throwing constructor included.
#pragma once

#include <atomic>
#include <cstdint>

namespace zel {

// One per binary that links the framework: the module has its own, hidden
// behind its version script. Changed only with sequentially consistent
// add/subtract, read with acquire by zelCanUnloadModule.
extern std::atomic<std::uint32_t> ModuleLockCount;

template <class T>
class ObjectModuleAutoLockTyped {
 protected:
  ObjectModuleAutoLockTyped() noexcept { ModuleLockCount.fetch_add(1, std::memory_order_seq_cst); }
  ~ObjectModuleAutoLockTyped() { ModuleLockCount.fetch_sub(1, std::memory_order_seq_cst); }

 public:
  ObjectModuleAutoLockTyped(const ObjectModuleAutoLockTyped&) = delete;
  ObjectModuleAutoLockTyped& operator=(const ObjectModuleAutoLockTyped&) = delete;
};

}  // namespace zel
