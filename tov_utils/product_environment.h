// Where the product is installed and in which state: the install links under
// the product's state directory, the container marker and a pending
// upgrade's parameters. Every reader takes the state directory as a
// parameter that defaults to the product's own, so tests can point it at a
// scratch tree.
#pragma once

#include <cstdint>
#include <string>

namespace tools {

inline constexpr const char* kProductStateDir = "/var/opt/tessarine/vorn";

// Names below the state directory.
namespace product_path {
inline constexpr const char* InstallCurrent = "install-current";
inline constexpr const char* InstallUpgrade = "install-upgrade";
inline constexpr const char* InstallPrevious = "install-previous";
inline constexpr const char* InstallFailed = "install-failed";
inline constexpr const char* UpgradeIni = "upgrade.ini";
inline constexpr const char* ContainerMarker = "private/.containerenv";
}  // namespace product_path

enum class InstallState : std::int32_t {
  Unknown = 0,                   // no current link, or a link could not be read
  Plain = 1,                     // current only
  Upgrading = 2,                 // upgrade link, no previous
  UpgradingWithPrevious = 3,     // upgrade and previous links
  Upgraded = 4,                  // previous link, no upgrade
  RolledBack = 5,                // failed and previous, current points where previous does
  FailedWithPrevious = 6,        // failed and previous, different targets
  Failed = 7,                    // failed alone
  FailedDuringUpgrade = 8,       // failed and upgrade, no previous
  UpgradePending = 9,            // upgrade.ini present
};

InstallState GetInstallState(const std::string& stateDir = kProductStateDir);

// True when the container marker exists (a link counts; it is not followed).
bool IsInsideContainer(const std::string& stateDir = kProductStateDir);

struct UpgradeInfo {
  std::string Version;
  std::string RestartCommand;
};

// The top-level keys of upgrade.ini. A missing file gives an empty record;
// a file that is not valid INI throws boost::property_tree::ini_parser_error.
UpgradeInfo ReadUpgradeInfo(const std::string& stateDir = kProductStateDir);

}  // namespace tools
