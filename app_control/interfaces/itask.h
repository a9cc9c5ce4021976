// app_core::task_manager::task::ITask: how the host's task manager drives a
// task (the module's own tasks as well as the engine task they hold). The
// task manager serialises these calls for one task; the session id and the
// stop notifier are the manager's and are only carried by the task.
#pragma once

#include <cstdint>

#include "app_control/interfaces/itask_stop_events.h"
#include "zel/iobject.h"

namespace app_core::task_manager::task {

class ITask : public zel::IObject {
 public:
  static constexpr zel::iid_t iid = 0xA47BF9AF;

  // Begins the task's work for session `sessionId`. `taskStopNotifier` (not
  // counted, may be null) is told when the task ends by itself.
  virtual zel::result_t Start(TaskSessionId sessionId, ITaskStopEvents* taskStopNotifier) = 0;
  // Ends the work; once it succeeds no more events come from the task.
  virtual zel::result_t Stop() = 0;
  virtual zel::result_t Pause() = 0;
  virtual zel::result_t Resume() = 0;

 protected:
  ~ITask() = default;
};

}  // namespace app_core::task_manager::task
