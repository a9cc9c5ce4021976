// host::TaskStopReceiver: the host's ITaskStopEvents. A task's worker tells
// it that the run is over; it keeps every notice in order of arrival and
// wakes whoever waits for one (the command line waits here, then stops the
// task as the task manager would).
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <mutex>
#include <optional>
#include <vector>

#include "app_control/interfaces/itask_stop_events.h"
#include "host/services/host_object.h"

namespace host {

using app_core::task_manager::task::TaskStopInfo;

class TaskStopReceiver final : public OwnedObject<TaskStopReceiver, app_core::task_manager::task::ITaskStopEvents> {
 public:
  TaskStopReceiver() = default;
  TaskStopReceiver(const TaskStopReceiver&) = delete;
  TaskStopReceiver& operator=(const TaskStopReceiver&) = delete;

  zel::result_t OnTaskStopped(const TaskStopInfo& info) override;

  // Waits until at least `count` notices have come, at most `timeout`.
  // Gives the `count`-th notice, or nothing on time-out.
  std::optional<TaskStopInfo> WaitFor(std::size_t count, std::chrono::milliseconds timeout) const;
  std::vector<TaskStopInfo> Received() const;
  std::size_t Count() const;

 private:
  mutable std::mutex m_mutex;
  mutable std::condition_variable m_arrived;
  std::vector<TaskStopInfo> m_received;
};

}  // namespace host
