// tov::TryLockTaskTypeGuard: one take of the host's task-type lock, owned by
// whoever holds the guard. Start takes the lock and moves the guard into the
// worker, which lets it go only after it has told the host that it stopped;
// so a second task of the type cannot start between the two.
#pragma once

#include <utility>

#include "app_control/interfaces/itask_try_mutex.h"
#include "zel/rtl/objclient.h"
#include "zel/types/string.h"

namespace tov {

class TryLockTaskTypeGuard {
 public:
  explicit TryLockTaskTypeGuard(zel::wstring_t type) : m_type(std::move(type)) {}
  TryLockTaskTypeGuard(TryLockTaskTypeGuard&& other) noexcept
      : m_type(std::move(other.m_type)), m_mutex(other.m_mutex) {
    other.m_mutex = nullptr;
  }
  TryLockTaskTypeGuard& operator=(TryLockTaskTypeGuard&&) = delete;
  TryLockTaskTypeGuard(const TryLockTaskTypeGuard&) = delete;
  TryLockTaskTypeGuard& operator=(const TryLockTaskTypeGuard&) = delete;

  // Gives the lock back, if one is held, and releases the service.
  ~TryLockTaskTypeGuard() {
    if (m_mutex == nullptr) return;
    static_cast<void>(m_mutex->Unlock(m_type));
    m_mutex->Release();
  }

  const zel::wstring_t& Type() const noexcept { return m_type; }
  bool Holds() const noexcept { return m_mutex != nullptr; }
  // Takes over `mutex` (one reference, whose lock of the type is held now).
  void Adopt(ITaskTryMutex* mutex) noexcept { m_mutex = mutex; }

 private:
  zel::wstring_t m_type;
  ITaskTryMutex* m_mutex = nullptr;
};

}  // namespace tov
