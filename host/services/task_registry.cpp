#include "host/services/task_registry.h"

#include <new>

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
    for (const TaskDescription& task : m_tasks) {
      if (pred(task)) {
        *description = task;
        return zel::result::NoError;
      }
    }
    return zel::result::NotFound;
  } catch (const std::bad_alloc&) {
    return zel::result::OutOfMemory;
  }
}

zel::result_t TaskRegistry::GetTaskById(std::uint64_t taskId, TaskDescription* description,
                                        const TaskRegistryCredentials& credentials) {
  return Find([taskId](const TaskDescription& t) { return t.taskId == taskId; }, description, credentials);
}

zel::result_t TaskRegistry::GetTaskByName(const zel::wstring_t& taskName, TaskDescription* description,
                                          const TaskRegistryCredentials& credentials) {
  return Find([&taskName](const TaskDescription& t) { return t.taskName.view() == taskName.view(); }, description,
              credentials);
}

void TaskRegistry::Add(const TaskDescription& task) {
  std::lock_guard lock(m_mutex);
  for (TaskDescription& existing : m_tasks) {
    if (existing.taskId == task.taskId) {
      existing = task;
      return;
    }
  }
  m_tasks.push_back(task);
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
