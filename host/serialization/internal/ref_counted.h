// Reference counting for the host's serialisation objects: heap objects that
// end themselves when the last reference goes, plus the one-shot failure
// hooks through which tests make the next call of an operation fail.
#pragma once

#include <atomic>
#include <cstdint>

#include "zel/result.h"

namespace host::serialization_detail {

template <class Derived>
class RefCount {
 public:
  std::uint32_t Increment() noexcept { return m_refs.fetch_add(1, std::memory_order_relaxed) + 1; }
  std::uint32_t Decrement() noexcept {
    const std::uint32_t n = m_refs.fetch_sub(1, std::memory_order_acq_rel) - 1;
    if (n == 0) delete static_cast<Derived*>(this);
    return n;
  }

 private:
  std::atomic<std::uint32_t> m_refs{1};
};

// A code armed for the next call only; 0 when nothing is armed.
class FailNext {
 public:
  void Arm(zel::result_t code) noexcept { m_code.store(code, std::memory_order_relaxed); }
  zel::result_t Take() noexcept {
    if (m_code.load(std::memory_order_relaxed) == 0) return 0;
    return m_code.exchange(0, std::memory_order_relaxed);
  }

 private:
  std::atomic<zel::result_t> m_code{0};
};

}  // namespace host::serialization_detail
