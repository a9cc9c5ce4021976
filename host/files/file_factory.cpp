#include "host/files/file_factory.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <string_view>
#include <utility>

#include "host/services/fault_switchboard.h"
#include "host/services/iopen_file.h"
#include "zel/rtl/error_handling/exceptions.h"
#include "zel/strings/conversions.h"

namespace host {

namespace {

zel::result_t LastError() noexcept { return zel::ResultFromErrno(static_cast<unsigned>(errno)); }

// Also answers IOpenFile, so that the engine knows the file's path and
// identity (and can use its hash cache) for what the scan opens.
//
// The stream is the descriptor's only user, so it keeps the position itself
// and reads with pread: seeking and telling cost no system call, which
// matters for the recogniser's seek-read-seek-back on every scanned file.
class FdStream final : public HeapObject<FdStream, zel::IIO, IOpenFile> {
 public:
  zel::result_t Read(void* buffer, std::uint32_t count, std::uint32_t* read) override {
    if (read != nullptr) *read = 0;
    if (buffer == nullptr && count != 0) return zel::result::InvalidArgument;
    if (const zel::result_t failure = m_failRead->load(); failure != 0) return failure;
    ssize_t n;
    do {
      n = ::pread(m_fd, buffer, count, m_position);
    } while (n < 0 && errno == EINTR);
    if (n < 0) return LastError();
    m_position += n;
    if (read != nullptr) *read = static_cast<std::uint32_t>(n);
    return zel::result::NoError;
  }

  zel::result_t Write(const void*, std::uint32_t, std::uint32_t* written) override {
    if (written != nullptr) *written = 0;
    return zel::result::AccessDenied;
  }

  // lseek's rules: a position below 0 or beyond off_t is refused, one past
  // the end is allowed.
  zel::result_t Seek(std::uint32_t origin, std::int64_t offset, std::uint64_t* position) override {
    std::int64_t base;
    switch (origin) {
      case zel::seek_origin::Begin: base = 0; break;
      case zel::seek_origin::Current: base = m_position; break;
      case zel::seek_origin::End: {
        struct stat st;
        if (::fstat(m_fd, &st) != 0) return LastError();
        base = st.st_size;
        break;
      }
      default: return zel::result::InvalidArgument;
    }
    std::int64_t at = 0;
    if (__builtin_add_overflow(base, offset, &at)) return zel::ResultFromErrno(static_cast<unsigned>(EOVERFLOW));
    if (at < 0) return zel::ResultFromErrno(static_cast<unsigned>(EINVAL));
    m_position = static_cast<off_t>(at);
    if (position != nullptr) *position = static_cast<std::uint64_t>(at);
    return zel::result::NoError;
  }

  zel::result_t Tell(std::uint64_t* position) override {
    if (position == nullptr) return zel::result::InvalidArgument;
    *position = static_cast<std::uint64_t>(m_position);
    return zel::result::NoError;
  }

  zel::result_t GetSize(std::uint64_t* size) override {
    if (size == nullptr) return zel::result::InvalidArgument;
    struct stat st;
    if (::fstat(m_fd, &st) != 0) return LastError();
    *size = static_cast<std::uint64_t>(st.st_size);
    return zel::result::NoError;
  }

  zel::result_t SetSize(std::uint64_t) override { return zel::result::AccessDenied; }
  zel::result_t Flush() override { return zel::result::NoError; }

  zel::result_t Stat(struct stat& st) override { return ::fstat(m_fd, &st) == 0 ? zel::result::NoError : LastError(); }
  zel::result_t GetPath(zel::string_t& path) override {
    try {
      path = zel::string_t(m_path.c_str());
      return zel::result::NoError;
    } catch (...) {
      return zel::ResultFromCurrentException(nullptr, nullptr);
    }
  }

 private:
  friend class host::HeapAccess;
  FdStream(int fd, std::string path, std::shared_ptr<std::atomic<zel::result_t>> failRead)
      : m_fd(fd), m_path(std::move(path)), m_failRead(std::move(failRead)) {}
  ~FdStream() { ::close(m_fd); }

  const int m_fd;
  off_t m_position = 0;
  const std::string m_path;
  const std::shared_ptr<std::atomic<zel::result_t>> m_failRead;
};

constexpr std::uint32_t kKnownShare = zel::file_share::Read | zel::file_share::Write | zel::file_share::Delete;

zel::result_t CheckArguments(std::uint32_t access, std::uint32_t share, std::uint32_t disposition,
                             std::uint32_t flags) noexcept {
  if (access == 0 || (access & ~(zel::file_access::Read | zel::file_access::Write)) != 0)
    return zel::result::InvalidArgument;
  if ((share & ~kKnownShare) != 0) return zel::result::InvalidArgument;
  if (disposition < zel::file_disposition::CreateNew || disposition > zel::file_disposition::TruncateExisting)
    return zel::result::InvalidArgument;
  if ((access & zel::file_access::Write) != 0 || disposition != zel::file_disposition::OpenExisting)
    return zel::result::NotSupported;
  if (flags != 0) return zel::result::InvalidArgument;
  return zel::result::NoError;
}

// Opens `path` as a regular file without ever blocking; gives the
// descriptor in blocking mode.
zel::result_t OpenRegular(const char* path, int* fd) noexcept {
  *fd = ::open(path, O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NOCTTY | O_NONBLOCK);
  if (*fd < 0) return errno == ENOENT ? zel::result::NotFound : LastError();
  struct stat st;
  zel::result_t r = zel::result::NoError;
  if (::fstat(*fd, &st) != 0) {
    r = LastError();
  } else if (!S_ISREG(st.st_mode)) {
    r = zel::result::InvalidType;
  } else if (::fcntl(*fd, F_SETFL, 0) != 0) {
    // Of the status flags F_SETFL can change, O_NONBLOCK is the only one
    // the open set: clearing them all makes the descriptor blocking.
    r = LastError();
  }
  if (ZEL_FAILED(r)) {
    ::close(*fd);
    *fd = -1;
  }
  return r;
}

}  // namespace

FileFactory::FileFactory() : m_failRead(std::make_shared<std::atomic<zel::result_t>>(0)) {}

zel::result_t FileFactory::CreateFile(const char16_t* widePath, std::uint32_t accessMask, std::uint32_t shareMode,
                                      std::uint32_t disposition, std::uint32_t flagsAndAttributes, zel::IIO** out) {
  if (const zel::result_t fault = FaultAt(FaultPoint::FilesCreate)) return fault;
  try {
    if (out == nullptr) return zel::result::InvalidArgument;
    *out = nullptr;
    if (widePath == nullptr || *widePath == 0) return zel::result::InvalidArgument;
    if (const zel::result_t r = CheckArguments(accessMask, shareMode, disposition, flagsAndAttributes); ZEL_FAILED(r))
      return r;
    if (const zel::result_t failure = m_failOpen.load(); failure != 0) return failure;

    const zel::string_t path = zel::Utf16ToUtf8(std::u16string_view(widePath));
    int fd = -1;
    if (const zel::result_t r = OpenRegular(path.c_str(), &fd); ZEL_FAILED(r)) return r;
    try {
      *out = MakeHeapObject<FdStream>(fd, std::string(path.view()), m_failRead).Detach();
    } catch (...) {
      ::close(fd);
      throw;
    }
    return zel::result::NoError;
  } catch (...) {
    return zel::ResultFromCurrentException(nullptr, nullptr);
  }
}

}  // namespace host
