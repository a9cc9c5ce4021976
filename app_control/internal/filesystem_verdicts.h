// FilesystemVerdicts: remembers, for the length of one walk, which devices
// lie on a file system the scan may enter, so that the pseudo-file-system
// test costs one statfs per device instead of one per entry. The caller has
// the entry's lstat at hand anyway; a device always carries one file system,
// so the answer for any path on it is the answer for all of them.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <utility>
#include <vector>

#include "zel/result.h"

namespace tov::app_control {

class FilesystemVerdicts {
 public:
  // tools::IsScannableFilesystem(AT_FDCWD, path) for an entry on `device`:
  // 1 scan, 0 do not, negative when the file system could not be asked.
  // Failures are not remembered: the next entry asks again.
  zel::result_t IsScannable(dev_t device, const char* path) noexcept;

  // Forgets every device (a new run may meet other mounts).
  void Clear() noexcept { m_known.clear(); }

 private:
  // Few devices per walk: a short list beats a map.
  std::vector<std::pair<dev_t, bool>> m_known;
};

}  // namespace tov::app_control
