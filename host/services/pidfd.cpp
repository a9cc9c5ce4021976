#include "host/services/pidfd.h"

#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

namespace host {
namespace {

// Linux's struct pidfd_info as of 6.13 (its first, 64-byte version), which
// Debian 12's headers predate. A later kernel answers this size too.
struct PidfdInfo {
  std::uint64_t mask;
  std::uint64_t cgroupid;
  std::uint32_t pid, tgid, ppid, ruid, rgid, euid, egid, suid, sgid, fsuid, fsgid;
  std::uint32_t spare0;
};
static_assert(sizeof(PidfdInfo) == 64);
constexpr unsigned long kPidfdGetInfo = _IOWR(0xFF, 11, PidfdInfo);
constexpr std::uint64_t kPidfdInfoPid = 1u << 0;
constexpr std::uint64_t kPidfdInfoCreds = 1u << 1;
constexpr long kPidfsMagic = 0x50494446;  // "PIDF"

// Whether pidfds are pidfs files here, whose inode numbers tell processes
// apart; before 6.9 every pidfd shares one anonymous inode. Asked once.
bool PidfdsHaveSerials(int pidfd) {
  static const bool answer = [pidfd] {
    struct statfs fs {};
    return ::fstatfs(pidfd, &fs) == 0 && fs.f_type == kPidfsMagic;
  }();
  return answer;
}

}  // namespace

PidfdHandle& PidfdHandle::operator=(PidfdHandle&& other) noexcept {
  if (this != &other) {
    Reset();
    m_fd = other.Release();
  }
  return *this;
}

int PidfdHandle::Release() noexcept {
  const int fd = m_fd;
  m_fd = -1;
  return fd;
}

void PidfdHandle::Reset() noexcept {
  if (m_fd >= 0) ::close(Release());
}

std::uint64_t PidfdSerial(int pidfd) {
  struct stat st {};
  return PidfdsHaveSerials(pidfd) && ::fstat(pidfd, &st) == 0 ? st.st_ino : 0;
}

std::optional<PidfdFacts> QueryPidfd(std::uint32_t pid, bool* unsupported, PidfdHandle* keep) {
  *unsupported = false;
  PidfdHandle pidfd(static_cast<int>(::syscall(SYS_pidfd_open, static_cast<pid_t>(pid), 0u)));
  if (pidfd.Get() < 0) {
    *unsupported = errno == ENOSYS;
    return std::nullopt;
  }
  PidfdInfo info{};
  info.mask = kPidfdInfoPid | kPidfdInfoCreds;
  if (::ioctl(pidfd.Get(), kPidfdGetInfo, &info) != 0) {
    *unsupported = errno == ENOTTY || errno == EINVAL || errno == EOPNOTSUPP;
    return std::nullopt;
  }
  if ((info.mask & (kPidfdInfoPid | kPidfdInfoCreds)) != (kPidfdInfoPid | kPidfdInfoCreds)) {
    *unsupported = true;
    return std::nullopt;
  }
  PidfdFacts facts{info.ruid, info.ppid, 0};
  if (keep != nullptr) {
    *keep = std::move(pidfd);
  } else {
    facts.serial = PidfdSerial(pidfd.Get());
  }
  return facts;
}

}  // namespace host
