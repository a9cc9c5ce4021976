#include "host/cli/service_state.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <sstream>

namespace host::cli {
namespace {

constexpr const char* kPidFile = "/enforce.pid";
constexpr const char* kStatusFile = "/enforce.status";

}  // namespace

std::string EnforceRunDir() {
  const char* dir = std::getenv("RUNTIME_DIRECTORY");
  // The service manager may pass several directories, separated by ':'.
  if (dir != nullptr && *dir == '/') return std::string(dir).substr(0, std::string(dir).find(':'));
  return "/run/acctl";
}

bool NotifyServiceManager(const std::string& state) {
  const char* socketPath = std::getenv("NOTIFY_SOCKET");
  if (socketPath == nullptr || (socketPath[0] != '/' && socketPath[0] != '@')) return false;
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  const std::size_t length = std::strlen(socketPath);
  if (length >= sizeof address.sun_path) return false;
  std::memcpy(address.sun_path, socketPath, length);
  if (address.sun_path[0] == '@') address.sun_path[0] = '\0';  // an abstract socket
  const int fd = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return false;
  const socklen_t size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + length);
  const bool sent = ::sendto(fd, state.data(), state.size(), MSG_NOSIGNAL, reinterpret_cast<sockaddr*>(&address),
                             size) == static_cast<ssize_t>(state.size());
  ::close(fd);
  return sent;
}

EnforceServiceState::EnforceServiceState() : m_dir(EnforceRunDir()) {
  ::mkdir(m_dir.c_str(), 0755);
  const std::string path = m_dir + kPidFile;
  int fd = -1;
  // An enforcer that ends unlinks the file it locked: a lock taken on that
  // file just before is on a name no reader finds, so take it again.
  for (int attempt = 0; attempt < 3 && fd < 0; ++attempt) {
    fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0644);
    if (fd < 0) return;
    struct flock lock {};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    if (::fcntl(fd, F_SETLK, &lock) != 0) {
      ::close(fd);
      return;
    }
    struct stat held {}, named {};
    if (::fstat(fd, &held) != 0 || ::stat(path.c_str(), &named) != 0 || held.st_ino != named.st_ino ||
        held.st_dev != named.st_dev) {
      ::close(fd);
      fd = -1;
    }
  }
  if (fd < 0) return;
  const std::string pid = std::to_string(::getpid()) + "\n";
  if (::ftruncate(fd, 0) != 0 || ::pwrite(fd, pid.data(), pid.size(), 0) != static_cast<ssize_t>(pid.size())) {
    ::close(fd);
    return;
  }
  m_pidFd = fd;
}

EnforceServiceState::~EnforceServiceState() {
  if (m_pidFd < 0) return;
  // The files go while the lock is still held: no other enforcer has them.
  ::unlink((m_dir + kStatusFile).c_str());
  ::unlink((m_dir + kPidFile).c_str());
  ::close(m_pidFd);
}

void EnforceServiceState::Publish(std::size_t marks, const std::string& countersJson) {
  if (m_pidFd < 0) return;
  const std::string path = m_dir + kStatusFile;
  const std::string temporary = path + ".new";
  {
    std::ofstream out(temporary, std::ios::trunc);
    out << "{\"pid\":" << ::getpid() << ",\"marks\":" << marks << ",\"counters\":" << countersJson
        << ",\"time\":" << std::time(nullptr) << "}\n";
    if (!out) return;
  }
  // A reader sees the previous status or this one, never half of one.
  ::rename(temporary.c_str(), path.c_str());
}

std::optional<EnforceStatus> FindEnforcer() {
  const std::string dir = EnforceRunDir();
  const int fd = ::open((dir + kPidFile).c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return std::nullopt;
  struct flock lock {};
  lock.l_type = F_WRLCK;
  lock.l_whence = SEEK_SET;
  const int got = ::fcntl(fd, F_GETLK, &lock);
  ::close(fd);
  if (got != 0 || lock.l_type == F_UNLCK) return std::nullopt;
  EnforceStatus status;
  status.pid = lock.l_pid;
  std::ifstream in(dir + kStatusFile);
  std::ostringstream text;
  text << in.rdbuf();
  status.statusJson = text.str();
  return status;
}

}  // namespace host::cli
