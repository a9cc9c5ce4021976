// A malloc-backed zel::IAllocator that counts its live blocks, so a test can
// assert that every block it handed out went back, and can be told to refuse
// allocations to drive out-of-memory paths.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "zel/iallocator.h"

namespace host {

class CountingAllocator final : public zel::IAllocator {
 public:
  CountingAllocator() = default;
  CountingAllocator(const CountingAllocator&) = delete;
  CountingAllocator& operator=(const CountingAllocator&) = delete;

  // Lives on the creator's stack or as a member: references are counted for
  // bookkeeping only and never destroy the object.
  std::uint32_t AddRef() override { return m_refs.fetch_add(1, std::memory_order_relaxed) + 1; }
  std::uint32_t Release() override { return m_refs.fetch_sub(1, std::memory_order_acq_rel) - 1; }
  zel::result_t QueryInterface(zel::iid_t iid, void** out) override;

  void* Alloc(std::size_t size) override;
  void* Realloc(void* pointer, std::size_t size) override;
  void Free(void* pointer) override;

  // Blocks handed out and not yet freed.
  std::int64_t LiveBlocks() const { return m_live.load(std::memory_order_acquire); }
  std::uint64_t TotalAllocations() const { return m_total.load(std::memory_order_relaxed); }
  // References taken and not yet released, beyond the creator's own.
  std::int64_t OutstandingRefs() const { return static_cast<std::int64_t>(m_refs.load()) - 1; }
  // Refuse the allocation after `n` more successful ones; negative disables.
  void FailAfter(std::int64_t n) { m_failAfter.store(n, std::memory_order_relaxed); }

 private:
  bool ShouldFail();

  std::atomic<std::uint32_t> m_refs{1};
  std::atomic<std::int64_t> m_live{0};
  std::atomic<std::uint64_t> m_total{0};
  std::atomic<std::int64_t> m_failAfter{-1};
};

}  // namespace host
