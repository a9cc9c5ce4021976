// IProcessRegistry: the host's view of the running processes. A process is
// named by a unique id that, unlike a pid, is never reused while the machine
// runs.
#pragma once

#include <cstdint>

#include "app_control/interfaces/iprocess_object.h"
#include "zel/iobject.h"

class IProcessRegistry : public zel::IObject {
 public:
  static constexpr zel::iid_t iid = 0x476789DB;

  // The unique id of the process that has `pid` now; 0x8000004C without one.
  virtual zel::result_t GetUniqueId(std::uint32_t pid, std::uint64_t* uniqueId) = 0;
  // The process that has `pid` now.
  virtual zel::result_t GetProcessByPid(std::uint32_t pid, IProcessObject** process) = 0;
  // The process with `*uniqueId`; 0x8000004C once it is gone (or the id is 0).
  virtual zel::result_t GetProcess(const std::uint64_t* uniqueId, IProcessObject** process) = 0;

 protected:
  ~IProcessRegistry() = default;
};
