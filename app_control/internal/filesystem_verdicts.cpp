#include "app_control/internal/filesystem_verdicts.h"

#include <fcntl.h>

#include "tov_utils/file_system.h"

namespace tov::app_control {

zel::result_t FilesystemVerdicts::IsScannable(dev_t device, const char* path) noexcept {
  for (const auto& [known, scannable] : m_known)
    if (known == device) return scannable ? 1 : 0;
  const zel::result_t r = tools::IsScannableFilesystem(AT_FDCWD, path);
  if (r >= 0) {
    try {
      m_known.emplace_back(device, r != 0);
    } catch (...) {
      // Not remembered: the next entry on the device asks again.
    }
  }
  return r;
}

}  // namespace tov::app_control
