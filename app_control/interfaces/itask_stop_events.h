// app_core::task_manager::task::ITaskStopEvents: the task manager's sink for
// "this task has ended by itself", and the session id the manager hands a
// task at Start. Both belong to the host; tasks only carry them.
#pragma once

#include <cstdint>

#include "zel/iobject.h"
#include "zel/types/string.h"

namespace app_core::task_manager::task {

using TaskSessionId = std::uint32_t;

// How a run ended: its result and a wide message.
struct TaskStopInfo {
  zel::result_t result = 0;
  zel::wstring_t message;
};

class ITaskStopEvents : public zel::IObject {
 public:
  static constexpr zel::iid_t iid = 0x3D5C91E4;

  // The task's run is over; the manager follows up with ITask::Stop. The
  // result is not looked at by callers.
  virtual zel::result_t OnTaskStopped(const TaskStopInfo& info) = 0;

 protected:
  ~ITaskStopEvents() = default;
};

}  // namespace app_core::task_manager::task
