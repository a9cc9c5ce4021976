#include "host/services/file_stream.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <limits>
#include <new>

namespace host {

namespace {

zel::result_t LastError() { return zel::ResultFromErrno(static_cast<unsigned>(errno)); }

}  // namespace

zel::result_t FileStream::Open(const std::string& path, zel::RefPtr<zel::IIO>& out) {
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return LastError();
  try {
    zel::RefPtr<FileStream> stream = MakeHeapObject<FileStream>(fd, path);
    out = zel::RefPtr<zel::IIO>(stream.Get());
    return zel::result::NoError;
  } catch (const std::bad_alloc&) {
    return zel::result::OutOfMemory;
  }
}

FileStream::FileStream(int fd, std::string path) : m_fd(fd), m_path(std::move(path)) {}

FileStream::~FileStream() { ::close(m_fd); }

zel::result_t FileStream::Read(void* buffer, std::uint32_t count, std::uint32_t* read) {
  if (buffer == nullptr && count != 0) return zel::result::InvalidArgument;
  std::uint32_t done = 0;
  // A short pread is not the end of the file; only 0 is.
  while (done < count) {
    const ssize_t n = ::pread(m_fd, static_cast<char*>(buffer) + done, count - done,
                              static_cast<off_t>(m_position + done));
    if (n < 0) {
      if (errno == EINTR) continue;
      return LastError();
    }
    if (n == 0) break;
    done += static_cast<std::uint32_t>(n);
  }
  m_position += done;
  if (read != nullptr) *read = done;
  return zel::result::NoError;
}

zel::result_t FileStream::Write(const void*, std::uint32_t, std::uint32_t* written) {
  if (written != nullptr) *written = 0;
  return zel::result::AccessDenied;
}

zel::result_t FileStream::Seek(std::uint32_t origin, std::int64_t offset, std::uint64_t* position) {
  std::int64_t base = 0;
  switch (origin) {
    case zel::seek_origin::Begin: break;
    case zel::seek_origin::Current: base = static_cast<std::int64_t>(m_position); break;
    case zel::seek_origin::End: {
      std::uint64_t size = 0;
      if (const zel::result_t r = GetSize(&size); ZEL_FAILED(r)) return r;
      base = static_cast<std::int64_t>(size);
      break;
    }
    default: return zel::result::InvalidArgument;
  }
  if ((offset > 0 && base > std::numeric_limits<std::int64_t>::max() - offset) || base + offset < 0)
    return zel::result::OutOfRange;
  m_position = static_cast<std::uint64_t>(base + offset);
  if (position != nullptr) *position = m_position;
  return zel::result::NoError;
}

zel::result_t FileStream::Tell(std::uint64_t* position) {
  if (position == nullptr) return zel::result::InvalidArgument;
  *position = m_position;
  return zel::result::NoError;
}

zel::result_t FileStream::GetSize(std::uint64_t* size) {
  if (size == nullptr) return zel::result::InvalidArgument;
  struct stat st {};
  if (::fstat(m_fd, &st) != 0) return LastError();
  *size = static_cast<std::uint64_t>(st.st_size);
  return zel::result::NoError;
}

zel::result_t FileStream::SetSize(std::uint64_t) { return zel::result::AccessDenied; }

zel::result_t FileStream::Flush() { return zel::result::NoError; }

zel::result_t FileStream::Stat(struct stat& st) {
  if (::fstat(m_fd, &st) != 0) return LastError();
  return zel::result::NoError;
}

zel::result_t FileStream::GetPath(zel::string_t& path) {
  try {
    path = zel::string_t(m_path.data(), m_path.size());
    return zel::result::NoError;
  } catch (const std::bad_alloc&) {
    return zel::result::OutOfMemory;
  }
}

}  // namespace host
