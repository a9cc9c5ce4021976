// File-system helpers shared by the product's components: reaching paths of
// 4096 bytes and more through a chain of directory descriptors, telling
// pseudo file systems apart, close-on-exec, atomic file replacement, and
// reading extended attributes.
#pragma once

#include <fcntl.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "zel/result.h"

namespace tools {

// Longest name handed to a single *at call, terminator included.
inline constexpr std::size_t kLongPathChunk = 4096;

// Where an *at call should start and with which name, for a path of any
// length. OpenLongPath fills it; the destructor closes `fd` (unless it is
// AT_FDCWD or unset) and frees `buffer`, so a cursor lives on the stack of
// the function that uses it.
struct LongPathCursor {
  const char* path = nullptr;  // the name to use when `buffer` is null
  char* buffer = nullptr;      // kLongPathChunk bytes when set; then it holds the name
  int fd = -1;                 // AT_FDCWD, an open directory, or -1

  LongPathCursor() = default;
  LongPathCursor(const LongPathCursor&) = delete;
  LongPathCursor& operator=(const LongPathCursor&) = delete;
  ~LongPathCursor() { Close(); }

  const char* Name() const noexcept { return buffer != nullptr ? buffer : path; }
  void Close() noexcept;
};

// Sets `cursor` so that (cursor.fd, cursor.Name()) names `path`. A path
// shorter than kLongPathChunk is used as it is relative to AT_FDCWD; a longer
// one is entered directory by directory, at most kLongPathChunk - 1 bytes at a
// time. 0x80000041 when the buffer cannot be had, 0x80010102 when a single
// component is longer than a chunk, the errno mapping when a directory on the
// way cannot be opened.
zel::result_t OpenLongPath(LongPathCursor& cursor, const char* path) noexcept;

// File system types the scan keeps out of.
namespace fs_magic {
inline constexpr std::int64_t Proc = 0x9FA0;
inline constexpr std::int64_t UsbDevFs = 0x9FA2;
inline constexpr std::int64_t SysFs = 0x62656572;
}  // namespace fs_magic

// 1: the file system of `path` (relative to `dirFd`) may be scanned; 0: it is
// proc, usbdevfs or sysfs; negative: the file system could not be asked,
// which callers treat as "scan" so that nothing is skipped by accident.
zel::result_t IsScannableFilesystem(int dirFd, const char* path) noexcept;
inline zel::result_t IsScannableFilesystem(const char* path) noexcept { return IsScannableFilesystem(AT_FDCWD, path); }

// Give true when the descriptor's close-on-exec bit has (or now has) the
// wanted state; false when fcntl failed.
bool SetCloseOnExec(int fd) noexcept;
bool ClearCloseOnExec(int fd) noexcept;

// Replaces `path` by a file holding `data`, through "<path>.tmp" and a
// rename, so a reader sees the old or the new file and never a part. The new
// file is read-only (0444). The errno mapping on failure.
zel::result_t WriteFileAtomically(const std::string& path, std::string_view data) noexcept;

// One extended attribute of an open file (fgetxattr) or of a path, not
// following a final link (lgetxattr). `value` is replaced on success; the
// errno mapping on failure (ENODATA when the attribute is absent).
zel::result_t GetFileXattr(int fd, const char* name, std::string& value) noexcept;
zel::result_t GetPathXattr(const char* path, const char* name, std::string& value) noexcept;

}  // namespace tools
