// Install state, container marker and upgrade parameters over a scratch
// state directory laid out as the product would leave it.
#include "tov_utils/product_environment.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <boost/property_tree/ini_parser.hpp>
#include <string>

#include "support/temp_tree.h"

namespace {

using tools::InstallState;

class InstallStateTest : public ::testing::Test {
 protected:
  static void Link(const testsupport::TempDir& in, const char* name, const std::string& target) {
    ASSERT_EQ(::symlink(target.c_str(), (in / name).c_str()), 0);
  }
  testsupport::TempDir dir;
};

TEST_F(InstallStateTest, EveryStateFromItsLinks) {
  struct Case {
    const char* name;
    bool current, upgrade, previous, failed;
    bool samePreviousTarget;
    bool upgradeIni;
    InstallState expected;
  };
  const Case cases[] = {
      {"nothing", false, false, false, false, false, false, InstallState::Unknown},
      {"no current, all others", false, true, true, true, false, true, InstallState::Unknown},
      {"plain", true, false, false, false, false, false, InstallState::Plain},
      {"upgrading", true, true, false, false, false, false, InstallState::Upgrading},
      {"upgrading over previous", true, true, true, false, false, false, InstallState::UpgradingWithPrevious},
      {"upgraded", true, false, true, false, false, false, InstallState::Upgraded},
      {"rolled back", true, false, true, true, true, false, InstallState::RolledBack},
      {"failed beside previous", true, false, true, true, false, false, InstallState::FailedWithPrevious},
      {"failed alone", true, false, false, true, false, false, InstallState::Failed},
      {"failed during upgrade", true, true, false, true, false, false, InstallState::FailedDuringUpgrade},
      {"pending upgrade wins", true, true, true, true, true, true, InstallState::UpgradePending},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    testsupport::TempDir state;
    if (c.current) Link(state, "install-current", "/opt/1.0");
    if (c.upgrade) Link(state, "install-upgrade", "/opt/2.0");
    if (c.previous) Link(state, "install-previous", c.samePreviousTarget ? "/opt/1.0" : "/opt/0.9");
    if (c.failed) Link(state, "install-failed", "/opt/2.0");
    if (c.upgradeIni) testsupport::WriteFile(state / "upgrade.ini", "Version=2.0\n");
    EXPECT_EQ(tools::GetInstallState(state.path()), c.expected);
  }
}

TEST_F(InstallStateTest, PlainFilesAreNotLinks) {
  testsupport::WriteFile(dir / "install-current");
  EXPECT_EQ(tools::GetInstallState(dir.path()), InstallState::Unknown);
  ::unlink((dir / "install-current").c_str());
  Link(dir, "install-current", "/x");
  testsupport::MakeDir(dir / "install-failed");  // a directory, not a link: ignored
  EXPECT_EQ(tools::GetInstallState(dir.path()), InstallState::Plain);
}

TEST_F(InstallStateTest, TargetsDifferingOnlyInLengthAreDifferent) {
  Link(dir, "install-current", "/opt/a");
  Link(dir, "install-previous", "/opt/a/");
  Link(dir, "install-failed", "/opt/b");
  EXPECT_EQ(tools::GetInstallState(dir.path()), InstallState::FailedWithPrevious);
}

TEST_F(InstallStateTest, ContainerMarker) {
  EXPECT_FALSE(tools::IsInsideContainer(dir.path()));
  testsupport::MakeDir(dir / "private");
  Link(dir, "private/.containerenv", "/nowhere");
  EXPECT_TRUE(tools::IsInsideContainer(dir.path())) << "a dangling link still marks";
}

TEST_F(InstallStateTest, UpgradeIni) {
  EXPECT_EQ(tools::ReadUpgradeInfo(dir.path()).Version, "");
  testsupport::WriteFile(dir / "upgrade.ini",
                         "Version = 12.4.1\nRestartCommand=/bin/systemctl restart vorn\n[Other]\nVersion=9\n");
  const tools::UpgradeInfo info = tools::ReadUpgradeInfo(dir.path());
  EXPECT_EQ(info.Version, "12.4.1");
  EXPECT_EQ(info.RestartCommand, "/bin/systemctl restart vorn");

  testsupport::WriteFile(dir / "upgrade.ini", "[Section]\nVersion=3\n");
  EXPECT_EQ(tools::ReadUpgradeInfo(dir.path()).Version, "") << "only top-level keys count";

  testsupport::WriteFile(dir / "upgrade.ini", "[broken\n");
  EXPECT_THROW(tools::ReadUpgradeInfo(dir.path()), boost::property_tree::ini_parser_error);
}

}  // namespace
