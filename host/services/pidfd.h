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

// An open pidfd, closed with its holder (or by Reset).
class PidfdHandle {
 public:
  PidfdHandle() noexcept = default;
  explicit PidfdHandle(int fd) noexcept : m_fd(fd) {}
  PidfdHandle(PidfdHandle&& other) noexcept : m_fd(other.Release()) {}
  PidfdHandle& operator=(PidfdHandle&& other) noexcept;
  PidfdHandle(const PidfdHandle&) = delete;
  PidfdHandle& operator=(const PidfdHandle&) = delete;
  ~PidfdHandle() { Reset(); }

  int Get() const noexcept { return m_fd; }
  int Release() noexcept;
  void Reset() noexcept;

 private:
  int m_fd = -1;
};

struct PidfdFacts {
  std::uint32_t uid = 0;  // the real user id
  std::uint32_t ppid = 0;
  std::uint64_t serial = 0;
};

// nullopt when the process is gone, with `unsupported` set when this kernel
// can't tell at all (no pidfd_open or no PIDFD_GET_INFO). With `keep`, the
// serial is left to PidfdSerial and the pidfd handed over, so that a caller
// in a hurry (a held start) reads it later: the open pidfd keeps the
// process's identity even after it ends.
std::optional<PidfdFacts> QueryPidfd(std::uint32_t pid, bool* unsupported, PidfdHandle* keep = nullptr);

// The serial of an open pidfd; 0 where pidfds are not pidfs files.
std::uint64_t PidfdSerial(int pidfd);

}  // namespace host
