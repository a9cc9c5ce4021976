// host::FileStream: a read-only zel::IIO over one open file descriptor,
// which also answers IOpenFile. The host opens program files with it for
// the engine; nothing is ever written through it.
#pragma once

#include <cstdint>
#include <string>

#include "host/services/host_object.h"
#include "host/services/iopen_file.h"
#include "zel/serialization/iio.h"

namespace host {

class FileStream final : public HeapObject<FileStream, zel::IIO, IOpenFile> {
 public:
  // Opens `path` for reading (following links, close-on-exec). The errno of
  // the failed open becomes the result.
  static zel::result_t Open(const std::string& path, zel::RefPtr<zel::IIO>& out);

  zel::result_t Read(void* buffer, std::uint32_t count, std::uint32_t* read) override;
  // Read-only: AccessDenied.
  zel::result_t Write(const void* buffer, std::uint32_t count, std::uint32_t* written) override;
  zel::result_t Seek(std::uint32_t origin, std::int64_t offset, std::uint64_t* position) override;
  zel::result_t Tell(std::uint64_t* position) override;
  zel::result_t GetSize(std::uint64_t* size) override;
  // Read-only: AccessDenied.
  zel::result_t SetSize(std::uint64_t size) override;
  zel::result_t Flush() override;

  zel::result_t Stat(struct stat& st) override;
  zel::result_t GetPath(zel::string_t& path) override;

 private:
  friend class HeapAccess;
  FileStream(int fd, std::string path);
  ~FileStream();

  const int m_fd;
  const std::string m_path;
  std::uint64_t m_position = 0;  // the stream reads with pread: no shared offset
};

}  // namespace host
