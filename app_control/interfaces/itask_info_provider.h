// ITaskInfoProvider: what the host's task manager knows about a running task,
// asked by the task itself: the name it runs under and the control group
// its threads belong in.
#pragma once

#include <cstdint>

#include "zel/iobject.h"
#include "zel/types/string.h"

// One task as the task manager runs it. A task reads what it needs; the
// rest is the host's bookkeeping.
struct TaskInfo {
  std::uint64_t taskId = 0;
  std::uint32_t sessionId = 0;
  zel::wstring_t taskName;
  zel::wstring_t taskType;
  zel::string_t cgroupName;  // relative to the host's cgroup root; empty for none
};

class ITaskInfoProvider : public zel::IObject {
 public:
  static constexpr zel::iid_t iid = 0x7B408C9D;

  // Fills `taskInfo` for the task with id `taskId`; 0x8000004C when there is
  // none. `taskInfo` is untouched on failure.
  virtual zel::result_t GetTaskInfoByTaskId(std::uint64_t taskId, TaskInfo& taskInfo) = 0;
  // The same for the task that runs session `sessionId` now.
  virtual zel::result_t GetTaskInfoByTaskSessionId(std::uint32_t sessionId, TaskInfo& taskInfo) = 0;

 protected:
  ~ITaskInfoProvider() = default;
};
