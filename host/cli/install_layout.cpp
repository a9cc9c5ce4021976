#include "host/cli/install_layout.h"

#include <unistd.h>

#include <filesystem>

namespace host::cli {

std::string DefaultModulePath(const std::string& installedRelative, const std::string& buildPath) {
  std::error_code error;
  const std::filesystem::path self = std::filesystem::read_symlink("/proc/self/exe", error);
  if (!error) {
    const std::filesystem::path installed = (self.parent_path() / installedRelative).lexically_normal();
    if (::access(installed.c_str(), R_OK) == 0) return installed.string();
  }
  return buildPath;
}

}  // namespace host::cli
