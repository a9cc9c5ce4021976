#include "tov_utils/product_environment.h"

#include <sys/stat.h>
#include <unistd.h>

#include <boost/property_tree/ini_parser.hpp>
#include <boost/property_tree/ptree.hpp>
#include <cstring>

namespace tools {

namespace {

std::string Join(const std::string& dir, const char* name) {
  std::string path = dir;
  if (path.empty() || path.back() != '/') path += '/';
  path += name;
  return path;
}

bool IsLink(const std::string& path) {
  struct stat st {};
  return ::lstat(path.c_str(), &st) == 0 && S_ISLNK(st.st_mode);
}

bool Exists(const std::string& path) {
  struct stat st {};
  return ::lstat(path.c_str(), &st) == 0;
}

// -1 on failure, the target's length otherwise.
ssize_t ReadLink(const std::string& path, char (&buffer)[4096]) {
  std::memset(buffer, 0, sizeof buffer);
  return ::readlink(path.c_str(), buffer, sizeof buffer);
}

}  // namespace

InstallState GetInstallState(const std::string& stateDir) {
  const std::string current = Join(stateDir, product_path::InstallCurrent);
  if (!IsLink(current)) return InstallState::Unknown;
  if (Exists(Join(stateDir, product_path::UpgradeIni))) return InstallState::UpgradePending;

  const std::string previousPath = Join(stateDir, product_path::InstallPrevious);
  const bool upgrade = IsLink(Join(stateDir, product_path::InstallUpgrade));
  const bool previous = IsLink(previousPath);
  const bool failed = IsLink(Join(stateDir, product_path::InstallFailed));

  if (!failed) {
    if (upgrade) return previous ? InstallState::UpgradingWithPrevious : InstallState::Upgrading;
    return previous ? InstallState::Upgraded : InstallState::Plain;
  }
  if (previous) {
    char currentTarget[4096];
    char previousTarget[4096];
    const ssize_t a = ReadLink(current, currentTarget);
    const ssize_t b = ReadLink(previousPath, previousTarget);
    if (a < 0 || b < 0) return InstallState::Unknown;
    const bool same = a == b && std::memcmp(currentTarget, previousTarget, static_cast<std::size_t>(a)) == 0;
    return same ? InstallState::RolledBack : InstallState::FailedWithPrevious;
  }
  return upgrade ? InstallState::FailedDuringUpgrade : InstallState::Failed;
}

bool IsInsideContainer(const std::string& stateDir) { return Exists(Join(stateDir, product_path::ContainerMarker)); }

UpgradeInfo ReadUpgradeInfo(const std::string& stateDir) {
  const std::string path = Join(stateDir, product_path::UpgradeIni);
  UpgradeInfo info;
  if (::access(path.c_str(), F_OK) != 0) return info;
  boost::property_tree::ptree tree;
  boost::property_tree::ini_parser::read_ini(path, tree);
  info.Version = tree.get<std::string>("Version", "");
  info.RestartCommand = tree.get<std::string>("RestartCommand", "");
  return info;
}

}  // namespace tools
