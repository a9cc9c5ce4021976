// host::TaskTryMutex: the reference host's ITaskTryMutex, one set of held
// task types for the whole host. Any task object may take a type and any
// may give it back (the scan task takes it on the caller's thread and its
// worker gives it back), so there is no owner check.
#pragma once

#include <cstdint>
#include <mutex>
#include <set>
#include <string>

#include "app_control/interfaces/itask_try_mutex.h"
#include "host/services/host_object.h"

namespace host {

class TaskTryMutex final : public OwnedObject<TaskTryMutex, ITaskTryMutex> {
 public:
  TaskTryMutex() = default;
  TaskTryMutex(const TaskTryMutex&) = delete;
  TaskTryMutex& operator=(const TaskTryMutex&) = delete;

  zel::result_t TryLock(const zel::wstring_t& type) override;
  zel::result_t IsLocked(const zel::wstring_t& type, bool& locked) override;
  zel::result_t Unlock(const zel::wstring_t& type) override;

  std::size_t HeldTypes() const;

 private:
  mutable std::mutex m_mutex;
  std::set<std::u16string, std::less<>> m_held;
};

}  // namespace host
