// host::QueryPidfd: what the kernel tells of a process through a pidfd
// (pidfd_open, PIDFD_GET_INFO from Linux 6.13), without procfs. A program
// start is held while the engine looks at its process, and a procfs read of
// a process that is being exec'ed costs tens of microseconds there; a pidfd
// asks the kernel's own structures.
//
// `serial` is the pidfd's inode number on pidfs (Linux 6.9 and later): a
// 64-bit number the kernel gives each process when it is made, counted up
// and never reused while the machine runs, so a process made later has a
// larger one. 0 where pidfds are not pidfs files.
#pragma once

#include <cstdint>
#include <optional>

namespace host {

struct PidfdFacts {
  std::uint32_t uid = 0;  // the real user id
  std::uint32_t ppid = 0;
  std::uint64_t serial = 0;
};

// nullopt when the process is gone, with `unsupported` set when this kernel
// can't tell at all (no pidfd_open or no PIDFD_GET_INFO).
std::optional<PidfdFacts> QueryPidfd(std::uint32_t pid, bool* unsupported);

}  // namespace host
