// ICgroupsManager: the host's keeper of control groups. A task that runs its
// own worker thread asks it to put that thread into the group the task
// manager chose for the task, so the host's resource limits reach the work.
#pragma once

#include <cstdint>

#include "zel/iobject.h"
#include "zel/types/string.h"

class ICgroupsManager : public zel::IObject {
 public:
  static constexpr zel::iid_t iid = 0x2B0CE84A;

  // Moves thread `tid` of this process into group `cgroupName` (a path below
  // the host's cgroup root, created when missing); `taskName` only says who
  // asks. An empty `cgroupName` asks for nothing and succeeds. Negative when
  // the group cannot be made or joined.
  virtual zel::result_t AddToCgroup(const zel::wstring_t& taskName, const zel::string_t& cgroupName,
                                    std::int32_t tid) = 0;

 protected:
  ~ICgroupsManager() = default;
};
