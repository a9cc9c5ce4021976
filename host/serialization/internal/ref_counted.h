// The one-shot failure hooks through which tests make the next call of a
// serialisation operation fail.
#pragma once

#include <atomic>
#include <cstdint>

#include "zel/result.h"

namespace host::serialization_detail {

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
