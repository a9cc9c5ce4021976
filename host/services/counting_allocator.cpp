#include "host/services/counting_allocator.h"

#include <cstdlib>

#include "host/services/fault_switchboard.h"

namespace host {

bool CountingAllocator::ShouldFail() {
  std::int64_t left = m_failAfter.load(std::memory_order_relaxed);
  while (left >= 0) {
    if (left == 0) return true;
    if (m_failAfter.compare_exchange_weak(left, left - 1, std::memory_order_relaxed)) return false;
  }
  return false;
}

void* CountingAllocator::Alloc(std::size_t size) {
  if (FaultAt(FaultPoint::Alloc) != 0) return nullptr;
  if (ShouldFail()) return nullptr;
  void* p = std::malloc(size == 0 ? 1 : size);
  if (p != nullptr) {
    m_live.fetch_add(1, std::memory_order_acq_rel);
    m_total.fetch_add(1, std::memory_order_relaxed);
  }
  return p;
}

void* CountingAllocator::Realloc(void* pointer, std::size_t size) {
  if (pointer == nullptr) return Alloc(size);
  if (FaultAt(FaultPoint::Alloc) != 0) return nullptr;
  if (ShouldFail()) return nullptr;
  return std::realloc(pointer, size == 0 ? 1 : size);
}

void CountingAllocator::Free(void* pointer) {
  if (pointer == nullptr) return;
  m_live.fetch_sub(1, std::memory_order_acq_rel);
  std::free(pointer);
}

}  // namespace host
