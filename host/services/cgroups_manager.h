// host::CgroupsManager: the reference host's ICgroupsManager over the
// cgroup v2 hierarchy. A group name is a path below the hierarchy's root
// (found as the cgroup2 mount in /proc/self/mountinfo, or given); a missing
// group is created, and every group the manager creates is made "threaded",
// since it holds single threads of the host process, not whole processes.
//
// Failure codes: InvalidArgument for a name with "." or ".." or empty
// components, or a tid that is not positive; NotSupported when there is no
// cgroup2 hierarchy, the given root is not one, or the kernel refuses to
// move the thread there (a group outside the process's threaded domain, or
// an existing group of domain type); AccessDenied when the hierarchy is not
// writable for us; otherwise the errno of the failed step.
#pragma once

#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "app_control/interfaces/icgroups_manager.h"
#include "host/services/host_object.h"

namespace host {

class CgroupsManager final : public OwnedObject<CgroupsManager, ICgroupsManager> {
 public:
  // `root` empty: the cgroup2 mount of `<procRoot>/self/mountinfo`.
  explicit CgroupsManager(std::string root = {}, const std::string& procRoot = "/proc");
  CgroupsManager(const CgroupsManager&) = delete;
  CgroupsManager& operator=(const CgroupsManager&) = delete;

  zel::result_t AddToCgroup(const zel::wstring_t& taskName, const zel::string_t& cgroupName,
                            std::int32_t tid) override;

  // Removes the group `cgroupName` (not its parents) once no thread is left
  // in it. For the host's clean-up and tests.
  zel::result_t RemoveCgroup(const std::string& cgroupName);

  // Where groups go; empty when there is no cgroup2 hierarchy.
  const std::string& Root() const noexcept { return m_root; }

  // The mount point of the first cgroup2 file system in a mountinfo file;
  // empty when there is none or the file cannot be read.
  static std::string FindCgroup2Mount(const std::string& mountinfoPath);

 private:
  // The name's components, or empty for a name that is not acceptable.
  static std::vector<std::string> SplitName(const std::string& name);

  const std::string m_root;
  std::mutex m_mutex;  // one creation at a time: a group is typed before use
};

}  // namespace host
