// host::TaskRegistry: the reference host's ITaskRegistry, a table of the
// tasks the host knows, looked up by id or by name. It records the
// credentials of the last lookup so tests can see who asked, and can be told
// to refuse every lookup to drive a caller's fallback path.
#pragma once

#include <cstdint>
#include <mutex>
#include <optional>
#include <vector>

#include "app_control/interfaces/itask_registry.h"
#include "host/services/host_object.h"

namespace host {

class TaskRegistry final : public OwnedObject<TaskRegistry, ITaskRegistry> {
 public:
  TaskRegistry() = default;
  TaskRegistry(const TaskRegistry&) = delete;
  TaskRegistry& operator=(const TaskRegistry&) = delete;

  zel::result_t GetTaskById(std::uint64_t taskId, TaskDescription* description,
                            const TaskRegistryCredentials& credentials) override;
  zel::result_t GetTaskByName(const zel::wstring_t& taskName, TaskDescription* description,
                              const TaskRegistryCredentials& credentials) override;

  // Adds or replaces (by task id) a task.
  void Add(const TaskDescription& task);
  // Fault injection: every lookup answers `code`; 0 answers normally again.
  void FailWith(zel::result_t code);

  std::uint64_t Lookups() const;
  std::optional<TaskRegistryCredentials> LastCredentials() const;

 private:
  template <class Pred>
  zel::result_t Find(Pred pred, TaskDescription* description, const TaskRegistryCredentials& credentials);

  mutable std::mutex m_mutex;
  std::vector<TaskDescription> m_tasks;
  zel::result_t m_failCode = 0;
  std::uint64_t m_lookups = 0;
  std::optional<TaskRegistryCredentials> m_lastCredentials;
};

}  // namespace host
