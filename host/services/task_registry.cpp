#include "host/services/task_registry.h"

#include <new>
#include <utility>

#include "host/services/fault_switchboard.h"

namespace host {

template <class Pred>
zel::result_t TaskRegistry::Find(Pred pred, TaskDescription* description,
                                 const TaskRegistryCredentials& credentials) {
  if (description == nullptr) return zel::result::InvalidArgument;
  try {
    std::lock_guard lock(m_mutex);
    ++m_lookups;
    m_lastCredentials = credentials;
    if (m_failCode != 0) return m_failCode;
    for (const Entry& entry : m_tasks) {
      if (pred(entry.description)) {
        *description = entry.description;
        return zel::result::NoError;
      }
    }
    return zel::result::NotFound;
  } catch (const std::bad_alloc&) {
    return zel::result::OutOfMemory;
  }
}

template <class Pred>
zel::result_t TaskRegistry::FindInfo(Pred pred, TaskInfo& taskInfo) {
  try {
    std::lock_guard lock(m_mutex);
    ++m_lookups;
    if (m_failCode != 0) return m_failCode;
    for (const Entry& entry : m_tasks) {
      if (!pred(entry.description)) continue;
      // Built aside so that a failed copy leaves the caller's record alone.
      TaskInfo info;
      info.taskId = entry.description.taskId;
      info.sessionId = entry.description.sessionId;
      info.taskName = entry.description.taskName;
      info.taskType = entry.description.taskType;
      info.cgroupName = zel::string_t(entry.cgroupName.data(), entry.cgroupName.size());
      taskInfo = std::move(info);
      return zel::result::NoError;
    }
    return zel::result::NotFound;
  } catch (const std::bad_alloc&) {
    return zel::result::OutOfMemory;
  }
}

zel::result_t TaskRegistry::GetTaskById(std::uint64_t taskId, TaskDescription* description,
                                        const TaskRegistryCredentials& credentials) {
  if (const zel::result_t fault = FaultAt(FaultPoint::TaskRegistryGetDescription)) return fault;
  return Find([taskId](const TaskDescription& t) { return t.taskId == taskId; }, description, credentials);
}

zel::result_t TaskRegistry::GetTaskByName(const zel::wstring_t& taskName, TaskDescription* description,
                                          const TaskRegistryCredentials& credentials) {
  if (const zel::result_t fault = FaultAt(FaultPoint::TaskRegistryGetDescription)) return fault;
  return Find([&taskName](const TaskDescription& t) { return t.taskName.view() == taskName.view(); }, description,
              credentials);
}

zel::result_t TaskRegistry::GetTaskInfoByTaskId(std::uint64_t taskId, TaskInfo& taskInfo) {
  if (const zel::result_t fault = FaultAt(FaultPoint::TaskInfoGet)) return fault;
  return FindInfo([taskId](const TaskDescription& t) { return t.taskId == taskId; }, taskInfo);
}

zel::result_t TaskRegistry::GetTaskInfoByTaskSessionId(std::uint32_t sessionId, TaskInfo& taskInfo) {
  if (const zel::result_t fault = FaultAt(FaultPoint::TaskInfoGet)) return fault;
  if (sessionId == 0) return zel::result::NotFound;
  return FindInfo([sessionId](const TaskDescription& t) { return t.sessionId == sessionId; }, taskInfo);
}

void TaskRegistry::Add(const TaskDescription& task, std::string cgroupName) {
  std::lock_guard lock(m_mutex);
  for (Entry& existing : m_tasks) {
    if (existing.description.taskId == task.taskId) {
      existing.description = task;
      existing.cgroupName = std::move(cgroupName);
      return;
    }
  }
  m_tasks.push_back(Entry{task, std::move(cgroupName)});
}

bool TaskRegistry::SetSession(std::uint64_t taskId, std::uint32_t sessionId) {
  std::lock_guard lock(m_mutex);
  for (Entry& existing : m_tasks) {
    if (existing.description.taskId == taskId) {
      existing.description.sessionId = sessionId;
      return true;
    }
  }
  return false;
}

void TaskRegistry::FailWith(zel::result_t code) {
  std::lock_guard lock(m_mutex);
  m_failCode = code;
}

std::uint64_t TaskRegistry::Lookups() const {
  std::lock_guard lock(m_mutex);
  return m_lookups;
}

std::optional<TaskRegistryCredentials> TaskRegistry::LastCredentials() const {
  std::lock_guard lock(m_mutex);
  return m_lastCredentials;
}

}  // namespace host
