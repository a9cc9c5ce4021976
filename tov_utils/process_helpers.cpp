#include "tov_utils/process_helpers.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <new>
#include <stdexcept>

namespace tools {

namespace detail {
std::string ComputeProcfsRoot() {
  std::string root = "/proc/";
  const char* value = std::getenv(kProcfsRootVariable);
  if (value != nullptr && *value != '\0' && ::access(value, F_OK) == 0) root = value;
  if (root.back() != '/') root += '/';
  return root;
}
}  // namespace detail

const std::string& GetProcfsRoot() {
  static const std::string root = detail::ComputeProcfsRoot();
  return root;
}

zel::result_t FindKernelModule(const char* name, const char* modulesFile) {
  std::ifstream in(modulesFile);
  if (!in.is_open()) return zel::result::FileNotFound;
  const std::size_t length = std::strlen(name);
  std::string line;
  while (std::getline(in, line)) {
    if (line.compare(0, length, name) == 0) return 0;
  }
  return 1;
}

bool IsRedirfsLoaded() { return FindKernelModule("redirfs") == 0; }

zel::basic_string_t<char> GetExecutablePath() {
  char buffer[4096] = {};
  const ssize_t n = ::readlink("/proc/self/exe", buffer, sizeof buffer);
  if (n <= 0) throw std::runtime_error("cannot read /proc/self/exe");
  return zel::basic_string_t<char>(buffer, static_cast<std::size_t>(n));
}

zel::result_t GetPathByFd(int fd, zel::basic_string_t<char>& path) noexcept {
  char link[4096];
  std::snprintf(link, sizeof link, "/proc/self/fd/%d", fd);
  char target[4096];
  const ssize_t n = ::readlink(link, target, sizeof target);
  if (n < 0) {
    if (errno == ENAMETOOLONG) return zel::result::LinkTargetTooLong;
    return zel::ResultFromErrno(static_cast<unsigned>(errno));
  }
  // readlink truncates silently; a full buffer means the target did not fit.
  if (static_cast<std::size_t>(n) == sizeof target) return zel::result::LinkTargetTooLong;
  try {
    path.assign(target, static_cast<std::size_t>(n));
  } catch (...) {
    return zel::result::UnspecifiedError;
  }
  return 0;
}

std::string DescribeLongPath(std::uint64_t device, std::uint64_t inode) {
  return std::string(kLongPathText) + " (device: " + std::to_string(device) + ", inode: " + std::to_string(inode) +
         ")";
}

namespace {
zel::result_t OpenProcessLink(pid_t pid, const char* link, int& fd) noexcept {
  try {
    char number[16];
    std::snprintf(number, sizeof number, "%u", static_cast<unsigned>(pid));
    const std::string path = GetProcfsRoot() + number + "/" + link;
    const int opened = ::openat(AT_FDCWD, path.c_str(), O_DIRECTORY | O_CLOEXEC);
    if (fd >= 0) ::close(fd);
    fd = opened;
    return opened < 0 ? zel::result::UnspecifiedError : 0;
  } catch (...) {
    return zel::result::UnspecifiedError;
  }
}
}  // namespace

zel::result_t OpenProcessRoot(pid_t pid, int& fd) noexcept { return OpenProcessLink(pid, "root", fd); }
zel::result_t OpenProcessCwd(pid_t pid, int& fd) noexcept { return OpenProcessLink(pid, "cwd", fd); }

}  // namespace tools
