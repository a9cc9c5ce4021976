#include "host/services/task_stop_receiver.h"

#include <new>

#include "host/services/fault_switchboard.h"

namespace host {

zel::result_t TaskStopReceiver::OnTaskStopped(const TaskStopInfo& info) {
  if (const zel::result_t fault = FaultAt(FaultPoint::TaskStopped)) return fault;
  try {
    {
      std::lock_guard lock(m_mutex);
      m_received.push_back(info);
    }
    m_arrived.notify_all();
    return zel::result::NoError;
  } catch (const std::bad_alloc&) {
    return zel::result::OutOfMemory;
  }
}

std::optional<TaskStopInfo> TaskStopReceiver::WaitFor(std::size_t count, std::chrono::milliseconds timeout) const {
  if (count == 0) return std::nullopt;
  std::unique_lock lock(m_mutex);
  if (!m_arrived.wait_for(lock, timeout, [&] { return m_received.size() >= count; })) return std::nullopt;
  return m_received[count - 1];
}

std::vector<TaskStopInfo> TaskStopReceiver::Received() const {
  std::lock_guard lock(m_mutex);
  return m_received;
}

std::size_t TaskStopReceiver::Count() const {
  std::lock_guard lock(m_mutex);
  return m_received.size();
}

}  // namespace host
