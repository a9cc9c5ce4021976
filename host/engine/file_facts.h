// What the reference engine observes of a program file before it decides:
// its path and name, the SHA-256 of its content and whether it lies on a
// removable drive. Category criteria are evaluated against these facts only.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>

#include "zel/result.h"
#include "zel/serialization/iio.h"

namespace host::engine {

struct FileFacts {
  std::string path;    // as given; not resolved
  std::string name;    // the part behind the last "/"
  std::string sha256;  // lower-case hex; empty when the file could not be read
  bool removable = false;
};

// SHA-256 of a file's content as lower-case hex. Negative (from errno) when
// the file cannot be opened or read.
zel::result_t Sha256File(const std::string& path, std::string* hex);

// The same over an open descriptor, from offset 0 whatever its file
// position (pread: the position is left alone).
zel::result_t Sha256Descriptor(int fd, std::string* hex);

// The same over a stream: seeks to its start and reads to its end.
zel::result_t Sha256Stream(zel::IIO* io, std::string* hex);

// A 64-bit id for a file content: the first 16 hex digits of its SHA-256,
// read as a big-endian number. Equal contents share it wherever they lie;
// 0 for a hash that is too short.
std::uint64_t IdFromSha256(const std::string& sha256);

// A 64-bit id for a file version at one path: IdFromSha256 mixed with the
// path's bytes. An unchanged file keeps its id from scan to scan; two copies
// of one content at two paths get two ids, so neither record replaces the
// other. Without a path it is IdFromSha256.
std::uint64_t IdForFile(const std::string& sha256, const std::string& path);

// Whether file times and inode numbers of a file system (statfs f_type)
// can key a hash cache: false where a server or user-space process supplies
// them, where ctime is a settable creation time, or where an inode number
// does not name one file for good (see hash_cache_store.h).
bool StampsTrustedOn(std::int64_t fsType);

// Whether block device `device` is one that sysfs marks removable; for a
// partition the flag of its disk counts.
bool IsDeviceRemovable(dev_t device, const std::string& sysRoot = "/sys");

// Whether `path` lies on a block device that sysfs marks removable. Looks in
// `sysRoot` + "/dev/block/<major>:<minor>" and, for a partition, its disk.
bool IsOnRemovableDrive(const std::string& path, const std::string& sysRoot = "/sys");

// Gathers all facts. A file that cannot be hashed still gets its path, name
// and drive facts, so criteria over those keep working.
FileFacts ComputeFileFacts(const std::string& path, const std::string& sysRoot = "/sys");

}  // namespace host::engine
