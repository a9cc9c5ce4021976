#include "host/services/task_try_mutex.h"

#include <new>

#include "host/services/fault_switchboard.h"

namespace host {

zel::result_t TaskTryMutex::TryLock(const zel::wstring_t& type) {
  if (const zel::result_t fault = FaultAt(FaultPoint::TaskLockTry)) return fault;
  try {
    std::lock_guard lock(m_mutex);
    return m_held.emplace(type.view()).second ? zel::result::NoError : zel::result::Locked;
  } catch (const std::bad_alloc&) {
    return zel::result::OutOfMemory;
  }
}

zel::result_t TaskTryMutex::IsLocked(const zel::wstring_t& type, bool& locked) {
  std::lock_guard lock(m_mutex);
  locked = m_held.find(type.view()) != m_held.end();
  return zel::result::NoError;
}

zel::result_t TaskTryMutex::Unlock(const zel::wstring_t& type) {
  if (const zel::result_t fault = FaultAt(FaultPoint::TaskLockUnlock)) return fault;
  std::lock_guard lock(m_mutex);
  const auto it = m_held.find(type.view());
  if (it == m_held.end()) return zel::result::NotLocked;
  m_held.erase(it);
  return zel::result::NoError;
}

std::size_t TaskTryMutex::HeldTypes() const {
  std::lock_guard lock(m_mutex);
  return m_held.size();
}

}  // namespace host
