// What the reference engine observes of a program file before it decides:
// its path and name, the SHA-256 of its content and whether it lies on a
// removable drive. Category criteria are evaluated against these facts only.
#pragma once

#include <string>

#include "zel/result.h"

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

// Whether `path` lies on a block device that sysfs marks removable. Looks in
// `sysRoot` + "/dev/block/<major>:<minor>" and, for a partition, its disk.
bool IsOnRemovableDrive(const std::string& path, const std::string& sysRoot = "/sys");

// Gathers all facts. A file that cannot be hashed still gets its path, name
// and drive facts, so criteria over those keep working.
FileFacts ComputeFileFacts(const std::string& path, const std::string& sysRoot = "/sys");

}  // namespace host::engine
