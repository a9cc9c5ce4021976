// host::FileFactory: the reference host's zel::IFileFactory. It opens regular
// files read-only as IIO streams over a descriptor, for the inventory scan
// to hand to the engine; the scan sends access Read, share Read and
// disposition OpenExisting.
//
// CreateFile:
//   - The wide path is converted to UTF-8 (zel::Utf16ToUtf8) and opened
//     with O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NOCTTY | O_NONBLOCK: a
//     symbolic link is refused, a terminal never becomes ours, and opening a
//     FIFO or a device does not wait for the other side.
//   - fstat on the open descriptor then refuses anything that is not a
//     regular file (FIFO, device, socket, directory) with 0x8000005D
//     "Invalid type"; a regular file gets O_NONBLOCK cleared.
//   - Arguments: access must be Read alone (Write: 0x80000042 "Not
//     supported", this host never writes through the factory); share is any
//     combination of Read, Write, Delete (Linux has no share modes);
//     disposition must be OpenExisting (the creating ones: "Not supported");
//     flagsAndAttributes must be 0. Values outside the numbering, a null or
//     empty path, or a null `out`: 0x80000046 "Invalid argument".
//   - A missing file is 0x8000004C "Not found"; other open failures come
//     from zel::ResultFromErrno (a symbolic link, ELOOP, is 0x8000006A).
//
// The stream: Read at the current position (a short count at the end),
// Seek, Tell, GetSize (fstat), Flush (nothing to do). Write and SetSize give
// "Access denied". The descriptor is closed when the last reference goes.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>

#include "host/services/host_object.h"
#include "zel/ifile_factory.h"

namespace host {

class FileFactory final : public OwnedObject<FileFactory, zel::IFileFactory> {
 public:
  FileFactory();
  FileFactory(const FileFactory&) = delete;
  FileFactory& operator=(const FileFactory&) = delete;

  zel::result_t CreateFile(const char16_t* widePath, std::uint32_t accessMask, std::uint32_t shareMode,
                           std::uint32_t disposition, std::uint32_t flagsAndAttributes, zel::IIO** out) override;

  // Fault injection, each while set (non-zero): CreateFile fails with
  // `code` before touching the file system; Read of every stream made here,
  // before or after, fails with `code`.
  void FailOpen(zel::result_t code) noexcept { m_failOpen.store(code); }
  void FailRead(zel::result_t code) noexcept { m_failRead->store(code); }

 private:
  std::atomic<zel::result_t> m_failOpen{0};
  std::shared_ptr<std::atomic<zel::result_t>> m_failRead;
};

}  // namespace host
