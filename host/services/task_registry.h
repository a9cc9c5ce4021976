// host::TaskRegistry: the reference host's ITaskRegistry and
// ITaskInfoProvider, a table of the tasks the host knows, looked up by id,
// by name, or by the session a task runs now, with the control group its
// work belongs in. It records the
// credentials of the last lookup so tests can see who asked, and can be told
// to refuse every lookup to drive a caller's fallback path.
#pragma once

#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "app_control/interfaces/itask_info_provider.h"
#include "app_control/interfaces/itask_registry.h"
#include "host/services/host_object.h"

namespace host {

class TaskRegistry final : public OwnedObject<TaskRegistry, ITaskRegistry, ITaskInfoProvider> {
 public:
  TaskRegistry() = default;
  TaskRegistry(const TaskRegistry&) = delete;
  TaskRegistry& operator=(const TaskRegistry&) = delete;

  zel::result_t GetTaskById(std::uint64_t taskId, TaskDescription* description,
                            const TaskRegistryCredentials& credentials) override;
  zel::result_t GetTaskByName(const zel::wstring_t& taskName, TaskDescription* description,
                              const TaskRegistryCredentials& credentials) override;

  // Session 0 is no session: it finds nothing.
  zel::result_t GetTaskInfoByTaskId(std::uint64_t taskId, TaskInfo& taskInfo) override;
  zel::result_t GetTaskInfoByTaskSessionId(std::uint32_t sessionId, TaskInfo& taskInfo) override;

  // Adds or replaces (by task id) a task, with the control group its
  // threads go into (empty: none).
  void Add(const TaskDescription& task, std::string cgroupName = {});
  // Records that task `taskId` runs session `sessionId` now (0 ends it);
  // false for an unknown task.
  bool SetSession(std::uint64_t taskId, std::uint32_t sessionId);
  // Fault injection: every lookup answers `code`; 0 answers normally again.
  void FailWith(zel::result_t code);

  std::uint64_t Lookups() const;
  std::optional<TaskRegistryCredentials> LastCredentials() const;

 private:
  struct Entry {
    TaskDescription description;
    std::string cgroupName;
  };

  template <class Pred>
  zel::result_t Find(Pred pred, TaskDescription* description, const TaskRegistryCredentials& credentials);
  template <class Pred>
  zel::result_t FindInfo(Pred pred, TaskInfo& taskInfo);

  mutable std::mutex m_mutex;
  std::vector<Entry> m_tasks;
  zel::result_t m_failCode = 0;
  std::uint64_t m_lookups = 0;
  std::optional<TaskRegistryCredentials> m_lastCredentials;
};

}  // namespace host
