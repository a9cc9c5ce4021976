// ITaskRegistry: the host's register of the tasks it runs, asked by name or
// by id for a task's description. Callers identify themselves with
// TaskRegistryCredentials; the host decides what they may see.
#pragma once

#include <cstdint>

#include "zel/iobject.h"
#include "zel/types/string.h"

// A task as the host knows it. The first four fields are what event
// producers read; the rest is the host's bookkeeping.
struct TaskDescription {
  std::uint64_t taskId = 0;
  std::uint64_t runtimeTaskId = 0;
  zel::wstring_t taskName;
  zel::wstring_t taskType;
  std::int32_t state = 7;  // TaskState; 7 is Unknown
  std::uint32_t sessionId = 0;
  zel::wstring_t displayName;
};

// Who asks: a user id, a user name, a principal kind and two access words.
struct TaskRegistryCredentials {
  std::int64_t userId = 0;
  zel::wstring_t userName;
  std::int32_t kind = 0;
  std::int32_t sessionId = -1;
  std::int32_t accessLevel = 0;
};

class ITaskRegistry : public zel::IObject {
 public:
  static constexpr zel::iid_t iid = 0x887632C7;

  // Fills `*description` for the task with id `taskId`; 0x8000004C when
  // there is none. `*description` is untouched on failure.
  virtual zel::result_t GetTaskById(std::uint64_t taskId, TaskDescription* description,
                                    const TaskRegistryCredentials& credentials) = 0;
  // The same by task name (exact, case-sensitive).
  virtual zel::result_t GetTaskByName(const zel::wstring_t& taskName, TaskDescription* description,
                                      const TaskRegistryCredentials& credentials) = 0;

 protected:
  ~ITaskRegistry() = default;
};
