// Long paths go through openat one directory at a time because no single
// system call takes a name of PATH_MAX bytes or more.
#include "tov_utils/file_system.h"

#include <sys/stat.h>
#include <sys/statfs.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <new>

namespace tools {

namespace {

zel::result_t LastErrno() noexcept { return zel::ResultFromErrno(static_cast<unsigned>(errno)); }

void CloseIfOwned(int fd) noexcept {
  if (fd >= 0) ::close(fd);
}

// The directory named by the first `length` bytes of `text`; a component cut
// right after a leading "/" stands for the root itself.
int OpenPart(int dirFd, const char* text, std::size_t length, int flags) noexcept {
  if (length == 0) return ::openat(dirFd, "/", flags);
  char part[kLongPathChunk];
  std::memcpy(part, text, length);
  part[length] = '\0';
  return ::openat(dirFd, part, flags);
}

}  // namespace

void LongPathCursor::Close() noexcept {
  if (fd != AT_FDCWD) CloseIfOwned(fd);
  fd = -1;
  delete[] buffer;
  buffer = nullptr;
  path = nullptr;
}

zel::result_t OpenLongPath(LongPathCursor& cursor, const char* path) noexcept {
  cursor.fd = AT_FDCWD;
  std::size_t remaining = std::strlen(path);
  if (remaining < kLongPathChunk) {
    cursor.path = path;
    return 0;
  }
  cursor.buffer = new (std::nothrow) char[kLongPathChunk];
  if (cursor.buffer == nullptr) return zel::result::OutOfMemory;

  const char* rest = path;
  for (;;) {
    std::memcpy(cursor.buffer, rest, kLongPathChunk);
    std::size_t slash = kLongPathChunk;
    while (slash > 0 && cursor.buffer[slash - 1] != '/') --slash;
    if (slash == 0) {
      delete[] cursor.buffer;
      cursor.buffer = nullptr;
      return zel::result::FileNotFound;
    }
    --slash;  // index of the "/"
    cursor.buffer[slash] = '\0';
    const int next = ::openat(cursor.fd, slash == 0 ? "/" : cursor.buffer, O_RDONLY | O_CLOEXEC);
    if (next < 0) {
      const zel::result_t r = LastErrno();
      if (ZEL_FAILED(r)) {
        delete[] cursor.buffer;
        cursor.buffer = nullptr;
        return r;
      }
    } else {
      if (cursor.fd != AT_FDCWD) ::close(cursor.fd);
      cursor.fd = next;
    }
    rest += slash + 1;
    remaining -= slash + 1;
    if (remaining < kLongPathChunk) {
      std::memcpy(cursor.buffer, rest, remaining + 1);
      cursor.path = nullptr;
      return 0;
    }
  }
}

zel::result_t IsScannableFilesystem(int dirFd, const char* path) noexcept {
  struct statfs fs {};
  std::size_t remaining = std::strlen(path);
  int rc;
  if (dirFd == AT_FDCWD && remaining < kLongPathChunk) {
    rc = ::statfs(path, &fs);
  } else {
    int current = dirFd;
    bool owned = false;
    rc = -1;
    const char* rest = path;
    bool reached = true;
    while (remaining >= kLongPathChunk) {
      std::size_t slash = kLongPathChunk - 1;
      while (slash > 0 && rest[slash - 1] != '/') --slash;
      if (slash == 0) {
        errno = ENAMETOOLONG;
        reached = false;
        break;
      }
      --slash;
      const int next = OpenPart(current, rest, slash, O_DIRECTORY | O_CLOEXEC);
      if (owned) ::close(current);
      if (next < 0) {
        owned = false;
        reached = false;
        break;
      }
      current = next;
      owned = true;
      rest += slash + 1;
      remaining -= slash + 1;
    }
    if (reached) {
      // O_NONBLOCK: a FIFO or a device must not hold the scan up.
      const int fd = ::openat(current, rest, O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
      if (fd >= 0) {
        rc = ::fstatfs(fd, &fs);
        const int saved = errno;
        ::close(fd);
        errno = saved;
      }
    }
    if (owned) {
      const int saved = errno;
      ::close(current);
      errno = saved;
    }
  }
  if (rc != 0) {
    const zel::result_t r = LastErrno();
    return ZEL_FAILED(r) ? r : zel::result::UnspecifiedError;
  }
  switch (static_cast<std::int64_t>(fs.f_type)) {
    case fs_magic::Proc:
    case fs_magic::UsbDevFs:
    case fs_magic::SysFs:
      return 0;
    default:
      return 1;
  }
}

namespace {
bool SetCloseOnExecState(int fd, bool wanted) noexcept {
  const int flags = ::fcntl(fd, F_GETFD);
  if (flags < 0) return false;
  if (((flags & FD_CLOEXEC) != 0) == wanted) return true;
  return ::fcntl(fd, F_SETFD, wanted ? (flags | FD_CLOEXEC) : (flags & ~FD_CLOEXEC)) == 0;
}
}  // namespace

bool SetCloseOnExec(int fd) noexcept { return SetCloseOnExecState(fd, true); }
bool ClearCloseOnExec(int fd) noexcept { return SetCloseOnExecState(fd, false); }

zel::result_t WriteFileAtomically(const std::string& path, std::string_view data) noexcept {
  try {
    const std::string temporary = path + ".tmp";
    if (::unlinkat(AT_FDCWD, temporary.c_str(), 0) != 0 && errno != ENOENT) return LastErrno();
    const int fd = ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0444);
    if (fd < 0) return LastErrno();
    std::size_t written = 0;
    while (written < data.size()) {
      const ssize_t n = ::write(fd, data.data() + written, data.size() - written);
      if (n < 0) {
        if (errno == EINTR) continue;
        const zel::result_t r = LastErrno();
        ::close(fd);
        ::unlinkat(AT_FDCWD, temporary.c_str(), 0);
        return r;
      }
      written += static_cast<std::size_t>(n);
    }
    if (::close(fd) != 0) {
      const zel::result_t r = LastErrno();
      ::unlinkat(AT_FDCWD, temporary.c_str(), 0);
      return r;
    }
    if (::rename(temporary.c_str(), path.c_str()) != 0) return LastErrno();
    return 0;
  } catch (const std::bad_alloc&) {
    return zel::result::OutOfMemory;
  }
}

namespace {
template <class Get>
zel::result_t ReadXattr(Get get, std::string& value) noexcept {
  try {
    for (;;) {
      const ssize_t size = get(nullptr, 0);
      if (size < 0) return LastErrno();
      std::string buffer(static_cast<std::size_t>(size), '\0');
      const ssize_t n = get(buffer.data(), buffer.size());
      if (n < 0) {
        if (errno == ERANGE) continue;  // it grew between the two calls
        return LastErrno();
      }
      buffer.resize(static_cast<std::size_t>(n));
      value = std::move(buffer);
      return 0;
    }
  } catch (const std::bad_alloc&) {
    return zel::result::OutOfMemory;
  }
}
}  // namespace

zel::result_t GetFileXattr(int fd, const char* name, std::string& value) noexcept {
  return ReadXattr([&](char* buf, std::size_t size) { return ::fgetxattr(fd, name, buf, size); }, value);
}

zel::result_t GetPathXattr(const char* path, const char* name, std::string& value) noexcept {
  return ReadXattr([&](char* buf, std::size_t size) { return ::lgetxattr(path, name, buf, size); }, value);
}

}  // namespace tools
