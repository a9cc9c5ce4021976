// acctl as a user and as an installed service run it: the built program on
// the example settings and categories, and on inputs it must refuse with a
// message and a failing exit code; scan and inventory in a scratch store
// (the golden-image workflow end to end, the inventory views, a stop by
// SIGINT, pause and resume by signal, the task-type lock across two acctl
// processes, the hash cache that scans and runs share through the store);
// the store's path and modes, the status command, and the unit's own command
// line started by hand with a notify socket of the test's, as the service
// manager would start it.
#include <gtest/gtest.h>
#include <poll.h>
#include <sqlite3.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "support/acctl_process.h"

namespace {

namespace fs = std::filesystem;
const std::string kSource = AC_SOURCE_DIR;
const std::string kExamples = kSource + "/host/examples/";

using test_support::Slurp;
using Outcome = test_support::AcctlOutcome;
using AcctlTest = test_support::AcctlProcessTest;
using AcctlServiceTest = test_support::AcctlProcessTest;
constexpr auto Count = test_support::CountOf;

// Files younger than the engine's racy window are hashed but not remembered.
void Settle() { std::this_thread::sleep_for(std::chrono::milliseconds(100)); }

TEST_F(AcctlTest, ExampleDecidesTheStartsOfTheFileThenOfTheCommandLineOneEventEach) {
  // A live process (this one), so that the engine finds it in /proc.
  const std::string pid = std::to_string(::getpid());
  const std::string starts = Write("starts", "# program user pid\n/bin/sh nobody " + pid + "\n\n/usr/bin/true 0\n");
  const std::string events = dir + "/events.jsonl";
  const Outcome o = Run("--events '" + events + "' run --settings " + kExamples + "settings.json --categories " +
                        kExamples + "categories.json --starts '" + starts + "' /bin/sh");
  ASSERT_EQ(o.exitCode, 0) << o.err;
  EXPECT_EQ(o.out, "") << "events go to the file";
  const std::string written = Slurp(events);
  EXPECT_EQ(test_support::CountOf(written, "\n"), 3u) << written;
  const std::size_t allowed = written.find("\"type\":120");
  ASSERT_NE(allowed, std::string::npos) << written;
  EXPECT_LT(written.find("\"type\":122"), allowed) << "events come in the order of the starts: " << written;
  EXPECT_NE(written.find("\"type\":122", allowed), std::string::npos) << written;
  EXPECT_NE(written.find("\"userName\":\"nobody\""), std::string::npos) << written;
  EXPECT_NE(written.find("\"ProcessId\":" + pid), std::string::npos) << written;
  EXPECT_NE(written.find("\"FileName\":\"true\""), std::string::npos) << written;
  EXPECT_NE(written.find("\"Category\":\"Shells\""), std::string::npos) << written;
  EXPECT_NE(written.find("\"VendorCategory\":\"No shells\""), std::string::npos) << written;
}

TEST_F(AcctlTest, EveryCommandAnswersHelpAndBadInputWithOneLine) {
  // --help: the usage on stdout, exit 0. Usage faults exit 2 (some with the
  // whole line given; an unknown option names its command); faults of the
  // input exit 1 with a line that says at least this much.
  const std::string good = kExamples + "settings.json";
  const std::string categories = kExamples + "categories.json";
  const std::string enforce = "enforce --settings " + good + " --watch " + dir;
  struct Case {
    std::string args;
    int exitCode;
    std::string message;
    uid_t asUser = 0;
  };
  std::vector<Case> cases = {
      {"run /bin/true", 2, "acctl: run: --settings SETTINGS.json is required\n"},
      {"run --settings", 2, "acctl: run: --settings needs a value\n"},
      {"scan --mask", 2, "acctl: scan: --mask needs a value\n"},
      {"inventory --count -1", 2, "acctl: inventory: bad --count '-1'\n"},
      {"inventory extra", 2, "acctl: inventory: unexpected argument extra\n"},
      {"enforce --settings s.json --watch /tmp --decision-timeout 3600001", 2,
       "acctl: enforce: bad --decision-timeout '3600001' (0 to 3600000)\n"},
      {"categories import", 2, "acctl: categories: give import FILE or export\n"},
      {"run --settings " + Write("s1", "{\"mode\": \"DenyList\", "), 1, "not a JSON document"},
      {"run --settings " + Write("s2", "{\"mode\": \"Sideways\", \"enforcement\": \"ApplyRules\"}"), 1, "Sideways"},
      {"run --settings " + Write("s4", "{\"mode\": \"DenyList\", \"enforcement\": \"ApplyRules\","
                                       " \"denyListRules\": [{\"ruleName\": \"r\", \"categoryName\": \"c\","
                                       " \"users\": [{\"userName\": \"u\", \"access\": \"Maybe\"}]}]}"),
       1, "denyListRules[0].users[0].access"},
      {"run --settings " + dir + "/missing.json", 1, "cannot read"},
      {"run --settings " + good + " --categories " + Write("c1", "[{\"Name\": 1}]"), 1, "message 321"},
      {"run --settings " + good + " --categories " + categories + " /bin/true:no-such-user-here", 1, "unknown user"},
      {"--module " + dir + "/none.so run --settings " + good + " /bin/true", 1, "none.so"},
      {"scan " + dir + "/missing", 2, dir + "/missing: No such file or directory"},
      {"scan " + Write("file", ""), 2, dir + "/file: not a directory"},
      {"scan --golden-image maybe", 2, "--golden-image takes add, remove or none"},
      {"scan --settings " + Write("bad.json", R"({"scanScopes": [{"path": "/usr/bin", "colour": 1}]})"), 1,
       "scanScopes[0]: unknown key \"colour\""},
      {"scan --settings " + Write("off.json", R"({"scanScopes": [{"path": "/usr/bin", "enabled": false}]})"), 2,
       "no enabled scope"},
      {"inventory --from x", 2, "bad --from 'x'"},
      {"--db " + dir + "/empty.db inventory --id 1", 1, "acctl: inventory: no application with id 1\n"},
      {"enforce --settings " + good + " --watch " + dir + "/missing", 2, dir + "/missing"},
      {"enforce --settings " + good, 2, "--watch DIR or --mount PATH"},
      {"enforce --watch " + dir, 2, "--settings"},
      {enforce + " --on-timeout maybe", 2, "maybe"},
      {enforce + " --decision-timeout 0", 2, "--decision-timeout"},
      {"enforce --settings " + dir + "/none.json --watch " + dir, 1, "none.json"},
      {enforce, 1, "acctl: enforce needs root: fanotify permission events need CAP_SYS_ADMIN\n", 65534},
  };
  for (const std::string command : {"demo", "run", "categories", "enforce", "scan", "inventory", "status"}) {
    const Outcome help = Run(command + " --help");
    EXPECT_EQ(help.exitCode, 0) << command << ": " << help.err;
    EXPECT_EQ(help.out.rfind("usage: acctl", 0), 0u) << command << ": " << help.out;
    EXPECT_EQ(help.err, "") << command;
    cases.push_back({command + " --frobnicate", 2, "acctl: " + command});
  }
  for (const auto& c : cases) {
    if (c.asUser != 0 && ::geteuid() != 0) continue;  // only root can become another user
    const Outcome o = Run(c.args, c.asUser);
    EXPECT_EQ(o.exitCode, c.exitCode) << c.args;
    EXPECT_NE(o.err.find(c.message), std::string::npos) << c.args << "\nstderr: " << o.err;
    EXPECT_EQ(o.err.rfind("acctl: ", 0), 0u) << c.args << "\nstderr: " << o.err;
    EXPECT_EQ(std::count(o.err.begin(), o.err.end(), '\n'), 1) << "one line: " << c.args << "\nstderr: " << o.err;
    EXPECT_EQ(o.out, "") << c.args;
  }
}

class AcctlScanTest : public test_support::AcctlProcessTest {
 protected:
  void SetUp() override {
    AcctlProcessTest::SetUp();
    db = dir + "/acctl.db";
    globalArgs = "--db '" + db + "'";
    fs::create_directories(dir + "/image/sub");
    fs::create_directories(dir + "/outside");
    fs::copy_file("/usr/bin/true", dir + "/image/true");
    std::ofstream(dir + "/image/sub/hello.sh") << "#!/bin/sh\necho hello\n";
    fs::permissions(dir + "/image/sub/hello.sh", fs::perms::owner_exec, fs::perm_options::add);
    fs::copy_file("/usr/bin/false", dir + "/outside/false");
  }

  // Big enough that a scan takes most of a second on a fast machine, so
  // that a signal sent once the first progress line is out finds it still
  // walking.
  std::string BigTree() {
    const int files = 40000;
    const std::string root = dir + "/big";
    for (int d = 0; d < files / 500 + 1; ++d) fs::create_directories(root + "/d" + std::to_string(d));
    for (int i = 0; i < files; ++i) {
      std::ofstream(root + "/d" + std::to_string(i / 500) + "/f" + std::to_string(i) + ".sh")
          << "#!/bin/sh\necho " << i << "\n";
    }
    return root;
  }

  std::string db;
};

TEST_F(AcctlScanTest, GoldenImageWorkflowAndTheInventoryViews) {
  const Outcome scan = Run("scan '" + dir + "/image' --golden-image add --json");
  ASSERT_EQ(scan.exitCode, 0) << scan.err;
  EXPECT_NE(scan.out.find("\"inventoried\":2"), std::string::npos) << scan.out;

  const Outcome list = Run("inventory --json");
  EXPECT_EQ(Count(list.out, "\"filePath\""), 2u) << list.out << list.err;
  EXPECT_NE(list.out.find(dir + "/image/true"), std::string::npos);
  EXPECT_NE(list.out.find(dir + "/image/sub/hello.sh"), std::string::npos);
  EXPECT_EQ(Count(list.out, "eac00500-0000-0000-0000-000000000000"), 2u) << list.out;
  const Outcome table = Run("inventory");
  EXPECT_EQ(table.out.rfind("ID", 0), 0u) << table.out << table.err;
  EXPECT_EQ(Count(table.out, "\n"), 3u) << table.out;
  const Outcome page = Run("inventory --json --from 1 --count 5");
  EXPECT_EQ(Count(page.out, "\"filePath\""), 1u) << page.out << page.err;
  EXPECT_EQ(Count(Run("inventory --json --from 2").out, "\"filePath\""), 0u);
  // The id of one record, then that record with its category names.
  const std::size_t at = page.out.find("\"id\" : ");
  ASSERT_NE(at, std::string::npos) << page.out;
  const std::string id = page.out.substr(at + 7, page.out.find_first_not_of("0123456789", at + 7) - (at + 7));
  const Outcome one = Run("inventory --json --id " + id);
  ASSERT_EQ(one.exitCode, 0) << one.err;
  EXPECT_NE(one.out.find("\"categoryNames\""), std::string::npos) << one.out;
  EXPECT_NE(one.out.find("\"GoldenImage\""), std::string::npos) << one.out;

  // An allow list on the image's category: its program runs, one from outside does not.
  const Outcome run = Run("run --settings " + kExamples + "golden-image-settings.json '" + dir + "/image/true' '" +
                          dir + "/outside/false'");
  ASSERT_EQ(run.exitCode, 0) << run.err;
  const std::size_t allowed = run.out.find("\"type\":120,"), blocked = run.out.find("\"type\":122,");
  ASSERT_LT(allowed, blocked) << run.out;
  EXPECT_LT(run.out.find("\"FileName\":\"true\""), blocked) << run.out;
  EXPECT_GT(run.out.find("\"FileName\":\"false\""), blocked) << run.out;

  // Remove: the next scan drops the category, and the image's program is no
  // longer allowed either.
  ASSERT_EQ(Run("scan '" + dir + "/image' --golden-image remove").exitCode, 0);
  EXPECT_EQ(Count(Run("inventory --json").out, "eac00500"), 0u);
  const Outcome again = Run("run --settings " + kExamples + "golden-image-settings.json '" + dir + "/image/true'");
  ASSERT_EQ(again.exitCode, 0) << again.err;
  EXPECT_NE(again.out.find("\"type\":122"), std::string::npos) << again.out;
}

TEST_F(AcctlScanTest, SettingsDocumentChoosesScopesMasksAndExclusions) {
  fs::create_directories(dir + "/image/skipped");
  std::ofstream(dir + "/image/skipped/other.sh") << "#!/bin/sh\n";
  std::ofstream(dir + "/scan.json") << "{\"goldenImageAction\": \"Add\", \"scanScopes\": [{\"path\": \"" + dir +
                                           "/image\", \"masks\": [\"*.sh\"]}, {\"path\": \"/nonexistent\", "
                                           "\"enabled\": false}], \"secondaryScopes\": [{\"path\": \"" + dir +
                                           "/image/skipped\"}]}";
  const Outcome scan = Run("scan --settings '" + dir + "/scan.json' --json");
  ASSERT_EQ(scan.exitCode, 0) << scan.err;
  const Outcome list = Run("inventory --json");
  EXPECT_EQ(Count(list.out, "\"filePath\""), 1u) << list.out;
  EXPECT_NE(list.out.find(dir + "/image/sub/hello.sh"), std::string::npos) << list.out;
  EXPECT_EQ(Count(list.out, "eac00500"), 1u) << list.out;

  // Roots on the command line replace the document's scopes; --mask narrows them.
  const Outcome cli = Run("scan --settings '" + dir + "/scan.json' '" + dir + "/image' --mask 'tr*' --json");
  ASSERT_EQ(cli.exitCode, 0) << cli.err;
  const Outcome after = Run("inventory --json");
  EXPECT_EQ(Count(after.out, "\"filePath\""), 1u) << after.out;
  EXPECT_NE(after.out.find(dir + "/image/true"), std::string::npos) << after.out;
}

TEST_F(AcctlScanTest, SignalsPauseResumeAndStopTheScanAndTheTaskTypeLockRefusesASecond) {
  const std::string root = BigTree();
  const auto first = Spawn("scan '" + root + "' --interval 0.05", "first");
  ASSERT_TRUE(first->WaitForErr("files seen")) << first->Err();
  first->Signal(SIGUSR1);  // hold it running while the second tries
  ASSERT_TRUE(first->WaitForErr("paused: ")) << first->Err();
  const Outcome second = Run("scan '" + dir + "/image'");
  EXPECT_EQ(second.exitCode, 1);
  EXPECT_EQ(Count(second.err, "acctl:"), 1u) << second.err;
  EXPECT_NE(second.err.find("another inventory scan is running"), std::string::npos) << second.err;
  first->Signal(SIGUSR2);
  ASSERT_TRUE(first->WaitForErr("resumed")) << first->Err();
  EXPECT_EQ(first->Exit(), 0) << first->Err();
  EXPECT_NE(first->Out().find("40000 inventoried"), std::string::npos) << first->Out();

  // Stopped by SIGINT, a scan on a store of its own leaves it empty.
  globalArgs = "--db '" + dir + "/stopped.db'";
  const auto stopped = Spawn("scan '" + root + "' --interval 0.05", "stopped");
  ASSERT_TRUE(stopped->WaitForErr("files seen")) << stopped->Err();
  EXPECT_EQ(stopped->Stop(SIGINT), 0) << stopped->Err();
  EXPECT_NE(stopped->Out().find("interrupted"), std::string::npos) << stopped->Out();
  const Outcome list = Run("inventory --json");
  EXPECT_EQ(list.exitCode, 0) << list.err;
  EXPECT_EQ(Count(list.out, "\"filePath\""), 0u) << list.out;
}

TEST_F(AcctlScanTest, ASecondScanHashesNothingRehashHashesAllAndAnUnusableCacheOnlyWarns) {
  // Two copies of one program: two records, each under its own path.
  fs::copy_file("/usr/bin/true", dir + "/image/sub/true-copy");
  Settle();
  const std::string scan = "scan '" + dir + "/image' --json";
  struct Step {
    const char* what;
    std::string args;
    const char* counts;
    bool spoilTheCache;  // first: a cache table of another shape, which the scan goes on without
  };
  const Step steps[] = {
      {"first", scan, "\"filesHashed\":3,\"filesSeen\":3,\"hashesFromCache\":0", false},
      {"second", scan, "\"filesHashed\":0,\"filesSeen\":3,\"hashesFromCache\":3", false},
      {"rehash", scan + " --rehash", "\"filesHashed\":3,\"filesSeen\":3,\"hashesFromCache\":0", false},
      {"unusable cache", scan, "\"filesHashed\":3,\"filesSeen\":3,\"hashesFromCache\":0", true},
  };
  for (const Step& step : steps) {
    SCOPED_TRACE(step.what);
    if (step.spoilTheCache) {
      sqlite3* handle = nullptr;
      ASSERT_EQ(sqlite3_open(db.c_str(), &handle), SQLITE_OK);
      EXPECT_EQ(sqlite3_exec(handle, "DROP TABLE hash_cache; CREATE TABLE hash_cache(x);", nullptr, nullptr, nullptr),
                SQLITE_OK);
      sqlite3_close(handle);
    }
    const Outcome o = Run(step.args);
    ASSERT_EQ(o.exitCode, 0) << o.err;
    EXPECT_NE(o.out.find(step.counts), std::string::npos) << o.out;
    EXPECT_NE(o.out.find("\"inventoried\":3"), std::string::npos) << o.out;
    EXPECT_EQ(Count(o.err, "warning"), step.spoilTheCache ? 1u : 0u) << o.err;
    EXPECT_EQ(Count(o.err, "acctl: warning: loading the hash cache in"), step.spoilTheCache ? 1u : 0u) << o.err;
  }
  const Outcome list = Run("inventory --json");
  EXPECT_EQ(Count(list.out, "\"filePath\""), 3u) << list.out;
  EXPECT_EQ(Count(list.out, dir + "/image/sub/true-copy\""), 1u) << list.out;
  EXPECT_EQ(Count(list.out, dir + "/image/true\""), 1u) << list.out;
}

unsigned ModeOf(const std::string& path) {
  struct stat st {};
  return ::stat(path.c_str(), &st) == 0 ? st.st_mode & 07777 : 0;
}

TEST_F(AcctlServiceTest, TheStoreIsTheOwnersAloneKeepsTheCategoriesAndIsRefusedOnceOthersMayWrite) {
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
  const std::string state = dir + "/state", db = state + "/acctl/acctl.db";
  ::setenv("XDG_STATE_HOME", state.c_str(), 1);
  const Outcome o = Run("categories import " + kSource + "/host/examples/categories.json", ::geteuid() == 0 ? 65534 : 0);
  ::unsetenv("XDG_STATE_HOME");
  ASSERT_EQ(o.exitCode, 0) << o.err;
  EXPECT_EQ(ModeOf(state + "/acctl"), 0700u);
  EXPECT_EQ(ModeOf(db), 0600u);
  // The categories it holds survive in it, until others may write it.
  globalArgs = "--db '" + db + "'";
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

TEST_F(AcctlServiceTest, StatusShowsTheStoreAndTheRunningEnforcerThatUsesTheScansHashes) {
  REQUIRE_FANOTIFY();
  const std::string watched = dir + "/bin", run = dir + "/run";
  std::filesystem::create_directory(watched);
  std::filesystem::copy_file("/usr/bin/true", watched + "/true");
  globalArgs = "--db '" + dir + "/state.db'";
  Settle();
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

TEST_F(AcctlUnitTest, TheUnitsCommandRefusesBadSettingsAndIsReadyOnlyWithItsMarksPlaced) {
  REQUIRE_FANOTIFY();
  // Bad settings: exit 2 (which the unit does not restart on) with one line
  // naming the file, and no READY=1.
  const std::string settings = Write("settings.json", "{\"mode\": \"Sideways\"}");
  const Outcome o = Run(UnitArguments(settings));
  EXPECT_EQ(o.exitCode, 2);
  EXPECT_EQ(std::count(o.err.begin(), o.err.end(), '\n'), 1) << o.err;
  EXPECT_NE(o.err.find(settings), std::string::npos) << o.err;
  EXPECT_EQ(ModeOf(dir + "/run/enforce.pid"), 0u) << "a refused start left a pid file";
  pollfd p{manager, POLLIN, 0};
  EXPECT_EQ(::poll(&p, 1, 0), 0) << "a refused start said something to the manager";

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

}  // namespace
