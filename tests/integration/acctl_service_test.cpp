// acctl as an installed service runs it: the store's path and modes, the
// status command, and the unit's own command line started by hand with a
// notify socket of the test's, as the service manager would start it.
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <regex>
#include <string>
#include <thread>

#include "support/acctl_process.h"

namespace {

using test_support::Slurp;
using Outcome = test_support::AcctlOutcome;
using AcctlServiceTest = test_support::AcctlProcessTest;

const std::string kSource = AC_SOURCE_DIR;

unsigned ModeOf(const std::string& path) {
  struct stat st {};
  return ::stat(path.c_str(), &st) == 0 ? st.st_mode & 07777 : 0;
}

TEST_F(AcctlServiceTest, CategoriesSurviveInTheStoreButAStoreOthersMayWriteIsRefused) {
  const std::string db = dir + "/state.db";
  globalArgs = "--db '" + db + "'";
  ASSERT_EQ(Run("categories import " + kSource + "/host/examples/categories.json").exitCode, 0);
  const struct {
    mode_t mode;
    const char* refused;  // the mode as the refusal gives it, or null
  } cases[] = {{0600, nullptr}, {0640, nullptr}, {0660, "660"}, {0602, "602"}};
  for (const auto& c : cases) {
    ASSERT_EQ(::chmod(db.c_str(), c.mode), 0);
    // A run without a categories document uses the stored ones.
    for (const std::string& command : {std::string("categories export"), std::string("inventory"),
                                       std::string("status"),
                                       "run --settings " + kSource + "/host/examples/settings.json /bin/sh"}) {
      SCOPED_TRACE(std::to_string(c.mode) + " " + command);
      const Outcome o = Run(command);
      if (c.refused != nullptr) {
        EXPECT_EQ(o.exitCode, 1);
        EXPECT_EQ(o.err, "acctl: refusing the store " + db + ": it is group- or world-writable (mode 0" + c.refused +
                             ")\n");
        continue;
      }
      EXPECT_EQ(o.exitCode, 0) << o.err;
      if (command == "categories export") {
        EXPECT_NE(o.out.find("(FilePath like /usr/bin/*sh)"), std::string::npos) << o.out;
      } else if (command[0] == 'r') {
        EXPECT_NE(o.out.find("\"Category\":\"Shells\""), std::string::npos) << o.out;
      }
    }
  }
}

TEST_F(AcctlServiceTest, TheDefaultStoreIsTheOwnersAlone) {
  // As root the default store is the machine's; status names it without
  // making it. The made-private path is tried as an unprivileged user.
  if (::geteuid() == 0) {
    const bool existed = ModeOf("/var/lib/acctl/acctl.db") != 0;
    const Outcome o = Run("status --json");
    ASSERT_EQ(o.exitCode, 0) << o.err;
    EXPECT_NE(o.out.find("\"path\":\"/var/lib/acctl/acctl.db\""), std::string::npos) << o.out;
    EXPECT_EQ(ModeOf("/var/lib/acctl/acctl.db") != 0, existed);
    ASSERT_EQ(::chmod(dir.c_str(), 0777), 0);
  }
  const std::string state = dir + "/state";
  ::setenv("XDG_STATE_HOME", state.c_str(), 1);
  const Outcome o = Run("categories import " + kSource + "/host/examples/categories.json", ::geteuid() == 0 ? 65534 : 0);
  ::unsetenv("XDG_STATE_HOME");
  ASSERT_EQ(o.exitCode, 0) << o.err;
  EXPECT_EQ(ModeOf(state + "/acctl"), 0700u);
  EXPECT_EQ(ModeOf(state + "/acctl/acctl.db"), 0600u);
}

TEST_F(AcctlServiceTest, StatusShowsTheStoreAndTheRunningEnforcerThatUsesTheScansHashes) {
  REQUIRE_FANOTIFY();
  const std::string watched = dir + "/bin", run = dir + "/run";
  std::filesystem::create_directory(watched);
  std::filesystem::copy_file("/usr/bin/true", watched + "/true");
  globalArgs = "--db '" + dir + "/state.db'";
  // Files younger than the engine's racy window are hashed but not remembered.
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  ASSERT_EQ(Run("scan " + watched).exitCode, 0);
  ASSERT_EQ(Run("categories import " + kSource + "/host/examples/categories.json").exitCode, 0);
  ::setenv("RUNTIME_DIRECTORY", run.c_str(), 1);

  Outcome o = Run("status --json");
  ASSERT_EQ(o.exitCode, 0) << o.err;
  EXPECT_NE(o.out.find("\"applications\":1,"), std::string::npos) << o.out;
  EXPECT_NE(o.out.find("\"categories\":2,"), std::string::npos) << o.out;
  EXPECT_TRUE(std::regex_search(o.out, std::regex("\"lastScan\":\"20[0-9-]{8}T[0-9:]{8}Z\""))) << o.out;
  EXPECT_NE(o.out.find("\"enforce\":{\"running\":false}"), std::string::npos) << o.out;

  const auto enforcer =
      Spawn("enforce --json --settings " + kSource + "/packaging/etc/settings.json --watch " + watched, "enforce");
  ASSERT_TRUE(enforcer->WaitReady()) << enforcer->Err();
  ASSERT_EQ(test_support::Child({watched + "/true"}).Wait().exitCode, 0);
  o = Run("status");
  EXPECT_EQ(o.exitCode, 0) << o.err;
  EXPECT_NE(o.out.find("enforce     running, pid " + std::to_string(enforcer->Pid()) + ", 1 marks\n"), std::string::npos)
      << o.out;
  // The status asked for fresh counters: the start above is in them.
  EXPECT_NE(o.out.find("decided 1,"), std::string::npos) << o.out;

  EXPECT_EQ(enforcer->Stop(), 0) << enforcer->Err();
  const std::string counters = enforcer->Out();
  EXPECT_NE(counters.find("\"allowed\":1,"), std::string::npos) << counters;
  EXPECT_NE(counters.find("\"hashCacheHits\":1,"), std::string::npos) << "the scan's hash was used: " << counters;
  EXPECT_EQ(ModeOf(run + "/enforce.pid"), 0u) << "the pid file outlived the enforcer";
  EXPECT_NE(Run("status").out.find("enforce     not running\n"), std::string::npos);
  ::unsetenv("RUNTIME_DIRECTORY");
}

// The next datagram on a socket standing in for the service manager's, or
// "" when none comes within 30 s.
std::string NextDatagram(int fd) {
  pollfd p{fd, POLLIN, 0};
  char buffer[4096];
  const ssize_t n = ::poll(&p, 1, 30'000) == 1 ? ::recv(fd, buffer, sizeof buffer, 0) : 0;
  return n > 0 ? std::string(buffer, static_cast<std::size_t>(n)) : std::string();
}

class AcctlUnitTest : public AcctlServiceTest {
 protected:
  void SetUp() override {
    AcctlServiceTest::SetUp();
    manager = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, (dir + "/notify").c_str(), sizeof address.sun_path - 1);
    ASSERT_EQ(::bind(manager, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    ::setenv("NOTIFY_SOCKET", address.sun_path, 1);
    ::setenv("RUNTIME_DIRECTORY", (dir + "/run").c_str(), 1);
  }
  void TearDown() override {
    ::unsetenv("NOTIFY_SOCKET");
    ::unsetenv("RUNTIME_DIRECTORY");
    ::close(manager);
    AcctlServiceTest::TearDown();
  }

  // The unit's ExecStart after the program, with the installed paths
  // swapped for the shipped configuration files and a store of the test's.
  std::string UnitArguments(const std::string& settings) {
    std::ifstream unit(kSource + "/packaging/acctl-enforce.service");
    std::string line, exec;
    while (std::getline(unit, line))
      if (line.rfind("ExecStart=", 0) == 0) exec = line.substr(10);
    const std::pair<std::string, std::string> swaps[] = {
        {"/usr/bin/acctl ", ""},
        {"/etc/acctl/settings.json", settings},
        {"/etc/acctl/categories.json", kSource + "/packaging/etc/categories.json"},
        {"/var/lib/acctl/acctl.db", dir + "/state.db"}};
    for (const auto& [from, to] : swaps) {
      const std::size_t at = exec.find(from);
      if (at == std::string::npos) ADD_FAILURE() << "unit ExecStart lacks " << from;
      if (at != std::string::npos) exec.replace(at, from.size(), to);
    }
    return exec;
  }

  int manager = -1;
};

TEST_F(AcctlUnitTest, TheUnitsCommandIsReadyOnlyWithItsMarksPlaced) {
  REQUIRE_FANOTIFY();
  const auto service = Spawn(UnitArguments(kSource + "/packaging/etc/settings.json"), "service");
  const std::string ready = NextDatagram(manager);
  ASSERT_EQ(ready.rfind("READY=1\n", 0), 0u) << ready << service->Err();
  // Ready means every mark is placed: a start right after it is held and
  // reported, and the status already counts the marks.
  EXPECT_NE(Slurp(dir + "/run/enforce.status").find("\"marks\":1,"), std::string::npos);
  test_support::Child child({"/usr/bin/true"});
  EXPECT_EQ(child.Wait().exitCode, 0);
  EXPECT_TRUE(service->WaitForErr("\"ProcessId\":" + std::to_string(child.Pid()) + ",", 1, true)) << service->Out();
  service->Signal(SIGTERM);
  EXPECT_EQ(NextDatagram(manager), "STOPPING=1");
  EXPECT_EQ(service->Exit(), 0) << service->Err();
}

TEST_F(AcctlUnitTest, TheUnitsCommandRefusesBadSettingsWithoutReadiness) {
  // Exit 2 (which the unit does not restart on) with one line naming the
  // file, and no READY=1.
  const std::string settings = Write("settings.json", "{\"mode\": \"Sideways\"}");
  const Outcome o = Run(UnitArguments(settings));
  EXPECT_EQ(o.exitCode, 2);
  EXPECT_EQ(std::count(o.err.begin(), o.err.end(), '\n'), 1) << o.err;
  EXPECT_NE(o.err.find(settings), std::string::npos) << o.err;
  EXPECT_EQ(ModeOf(dir + "/run/enforce.pid"), 0u) << "a refused start left a pid file";
  pollfd p{manager, POLLIN, 0};
  EXPECT_EQ(::poll(&p, 1, 0), 0) << "a refused start said something to the manager";
}

}  // namespace
