#include "host/services/pidfd.h"

#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <cerrno>

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

class Descriptor {
 public:
  explicit Descriptor(int fd) noexcept : m_fd(fd) {}
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  ~Descriptor() {
    if (m_fd >= 0) ::close(m_fd);
  }
  int Get() const noexcept { return m_fd; }

 private:
  const int m_fd;
};

}  // namespace

std::optional<PidfdFacts> QueryPidfd(std::uint32_t pid, bool* unsupported) {
  *unsupported = false;
  const Descriptor pidfd(static_cast<int>(::syscall(SYS_pidfd_open, static_cast<pid_t>(pid), 0u)));
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
  struct stat st {};
  if (PidfdsHaveSerials(pidfd.Get()) && ::fstat(pidfd.Get(), &st) == 0) facts.serial = st.st_ino;
  return facts;
}

}  // namespace host
