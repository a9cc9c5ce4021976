// A malloc-backed zel::IAllocator that counts its live blocks, so a test can
// assert that every block it handed out went back, and can be told to refuse
// allocations to drive out-of-memory paths.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "host/services/host_object.h"
#include "zel/iallocator.h"

namespace host {

class CountingAllocator final : public OwnedObject<CountingAllocator, zel::IAllocator> {
 public:
  CountingAllocator() = default;
  CountingAllocator(const CountingAllocator&) = delete;
  CountingAllocator& operator=(const CountingAllocator&) = delete;

  void* Alloc(std::size_t size) override;
  void* Realloc(void* pointer, std::size_t size) override;
  void Free(void* pointer) override;

  // Blocks handed out and not yet freed.
  std::int64_t LiveBlocks() const { return m_live.load(std::memory_order_acquire); }
  std::uint64_t TotalAllocations() const { return m_total.load(std::memory_order_relaxed); }
  // Refuse the allocation after `n` more successful ones; negative disables.
  void FailAfter(std::int64_t n) { m_failAfter.store(n, std::memory_order_relaxed); }

 private:
  bool ShouldFail();

  std::atomic<std::int64_t> m_live{0};
  std::atomic<std::uint64_t> m_total{0};
  std::atomic<std::int64_t> m_failAfter{-1};
};

}  // namespace host
