// acctl enforce on this machine's program starts: the built program holds
// the starts in a marked temporary directory, and the tests start copies of
// /usr/bin/true there and watch what the kernel lets through. Every wait is
// bounded: a listener that hangs fails the test instead of hanging it.
//
// Needs root and fanotify. Elsewhere the tests are skipped, except under CI,
// where they must run.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/mount.h>

#include <algorithm>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "host/engine/file_facts.h"
#include "support/acctl_process.h"

namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using test_support::Slurp;
using test_support::Started;
using Proc = test_support::Child;
using ::testing::_;
using ::testing::AllOf;
using ::testing::ElementsAre;
using ::testing::HasSubstr;

Started Start(const fs::path& path) { return Proc({path}).Wait(); }

// vm.memfd_noexec; -1 when this kernel has none.
int MemfdNoExec() {
  std::ifstream in("/proc/sys/vm/memfd_noexec");
  int value = -1;
  return in >> value ? value : -1;
}

// Starts a copy of /usr/bin/true from a memfd, never from a file system: 0
// when it ran and ended well, else the errno of memfd_create or the exec.
int RunFromMemfd() {
  const int fd = ::memfd_create("from-memory", 0);
  if (fd < 0) return errno;
  const std::string program = Slurp("/usr/bin/true");
  const bool written = ::write(fd, program.data(), program.size()) == static_cast<ssize_t>(program.size());
  const Started s = Proc({"/proc/self/fd/" + std::to_string(fd)}).Wait();
  ::close(fd);
  return !written ? EIO : s.execError != 0 ? s.execError : s.exitCode == 0 ? 0 : ECHILD;
}

// The dynamic loader of this system; empty when none of the usual names is there.
fs::path DynamicLoader() {
  for (const char* name : {"/lib64/ld-linux-x86-64.so.2", "/lib/ld-linux-aarch64.so.1", "/lib/ld-linux-armhf.so.3"})
    if (fs::exists(name)) return name;
  return {};
}

// The value of `name` in acctl's one-line JSON counters; -1 when missing.
long long JsonCounter(const std::string& json, const std::string& name) {
  const std::string key = "\"" + name + "\":";
  const std::size_t at = json.find(key);
  return at == std::string::npos ? -1 : std::atoll(json.c_str() + at + key.size());
}

// `threads` threads each start `perThread` programs one after another,
// taking turns over `programs`, through posix_spawn (safe from threads,
// unlike a fork that goes on to allocate). Waits for every one to end.
void Storm(const std::vector<fs::path>& programs, int threads, int perThread) {
  std::vector<std::thread> loops;
  for (int t = 0; t < threads; ++t) {
    loops.emplace_back([&programs, perThread, t] {
      for (int i = 0; i < perThread; ++i) {
        std::string path = programs[static_cast<std::size_t>(t + i) % programs.size()].string();
        char* argv[] = {path.data(), nullptr};
        pid_t pid = -1;
        if (::posix_spawn(&pid, path.c_str(), nullptr, nullptr, argv, nullptr) == 0) ::waitpid(pid, nullptr, 0);
      }
    });
  }
  for (std::thread& t : loops) t.join();
}

constexpr const char* kCategories = R"J([
  { "Name": "Blocked", "GUID": "b10c0000000000000000000000000001", "Include": ["(FileName == blocked)"] }
])J";

std::string DenySettings(const std::string& enforcement = "ApplyRules", const std::string& status = "On") {
  return "{ \"mode\": \"DenyList\", \"enforcement\": \"" + enforcement +
         "\", \"reportAllowedStarts\": true, \"denyListRules\": [ { \"ruleName\": \"No blocked\", "
         "\"status\": \"" + status + "\", \"categoryName\": \"Blocked\", "
         "\"users\": [ { \"userName\": \"\\\\Everyone\", \"access\": \"Block\" } ] } ] }";
}

class EnforceTest : public test_support::AcctlProcessTest {
 protected:
  void SetUp() override {
    AcctlProcessTest::SetUp();
    REQUIRE_FANOTIFY();
    fs::permissions(dir, fs::perms::owner_all | fs::perms::group_read | fs::perms::group_exec |
                             fs::perms::others_read | fs::perms::others_exec);
    bin = fs::path(dir) / "bin";
    fs::create_directories(dir + "/other");
    fs::create_directory(bin);
    blocked = Program("blocked", bin);
    allowed = Program("allowed", bin);
    unwatched = Program("blocked", dir + "/other");
    events = dir + "/events.jsonl";
    Write("categories.json", kCategories);
  }
  void TearDown() override {
    if (!mounted.empty()) ::umount2(mounted.c_str(), MNT_DETACH);
    AcctlProcessTest::TearDown();
  }

  fs::path Program(const std::string& name, const fs::path& in, const fs::path& from = "/usr/bin/true") {
    const fs::path path = in / name;
    fs::copy_file(from, path, fs::copy_options::overwrite_existing);
    return path;
  }
  // The listener, once its marks are placed (a listener that never gets
  // there fails the test, and every wait after it is bounded). `traced`: at
  // trace level 800, where each held start has its line.
  std::unique_ptr<test_support::Acctl> Enforce(const std::string& settings, const std::string& extra = "",
                                               bool traced = false, const std::string& marks = "") {
    auto acctl = Spawn(std::string("--trace ") + (traced ? "800" : "700") + " --events " + events.string() +
                       " enforce --settings " + Write("settings.json", settings) + " --categories " + dir +
                       "/categories.json " + (marks.empty() ? "--watch " + bin.string() : marks) + " " + extra);
    EXPECT_TRUE(acctl->WaitReady()) << acctl->Err();
    return acctl;
  }
  std::vector<std::string> EventLines() {
    std::vector<std::string> lines;
    std::istringstream in(Slurp(events));
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
  }

  fs::path bin, events;
  fs::path blocked, allowed;  // in bin, where the listener watches; only `blocked` is in the category
  fs::path unwatched;         // a copy of `blocked` outside of it
  std::string mounted;
};

// The process's facts are read while its start is held: once it is
// answered, a program like these is gone before anything could look.
TEST_F(EnforceTest, BlockedCopyFailsWithEpermAllowedAndUnwatchedOnesRunAndEveryReportNamesItsProcess) {
  const auto acctl = Enforce(DenySettings());
  EXPECT_THAT(acctl->Err(), HasSubstr("acctl: enforcing on 1 marks"));

  std::vector<pid_t> pids;
  const auto start = [&pids](const fs::path& program) {
    Proc child({program});
    pids.push_back(child.Pid());
    return child.Wait();
  };
  EXPECT_EQ(start(allowed).exitCode, 0);
  EXPECT_EQ(start(blocked).execError, EPERM);
  EXPECT_EQ(start(blocked).execError, EPERM) << "the second start, from the hash cache, is blocked too";
  EXPECT_EQ(Start(unwatched).exitCode, 0) << "a program outside the marks is not held";
  for (int i = 0; i < 20; ++i) ASSERT_EQ(start(allowed).exitCode, 0);

  ASSERT_EQ(acctl->Stop(), 0) << acctl->Err();
  EXPECT_THAT(acctl->Err(), HasSubstr("decided 23, allowed 21, blocked 2, test-mode 0, timed out 0"));
  const std::vector<std::string> lines = EventLines();
  // With the listener's counters and traces: one report went missing once
  // in a loaded sanitizer run, and this says whether it was decided.
  ASSERT_EQ(lines.size(), pids.size()) << Slurp(events) << "\nacctl stderr:\n" << acctl->Err();
  for (std::size_t i = 0; i < pids.size(); ++i) {
    const bool isBlocked = i == 1 || i == 2;
    EXPECT_THAT(lines[i], HasSubstr(isBlocked ? "\"type\":122" : "\"type\":120"));
    EXPECT_THAT(lines[i], HasSubstr(isBlocked ? "\"FileName\":\"blocked\"" : "\"FileName\":\"allowed\""));
    if (isBlocked) {
      EXPECT_THAT(lines[i], HasSubstr("\"Category\":\"Blocked\""));
    }
    EXPECT_THAT(lines[i], HasSubstr("\"ProcessId\":" + std::to_string(pids[i]) + ","));
    EXPECT_THAT(lines[i], HasSubstr("\"AccessUserId\":0,"));
  }
}

TEST_F(EnforceTest, AStormOfStartsIsAccountedForWholeInTheCounters) {
  // Every start read is decided, timed out or undecided; every decision is
  // published, dropped or failed; and what was published was written. A
  // short program's process ends while its event waits to be published:
  // once, describing it made the event vanish uncounted.
  const std::vector<fs::path> programs{allowed, blocked};
  struct Case {
    const char* name;
    const char* options;
  };
  const Case cases[] = {
      {"decided in time", ""},
      // Four deciding threads, each decision held 60 ms, eight starters:
      // starts left waiting in line pass the 100 ms deadline.
      {"some timed out", "--decision-delay 60 --decision-timeout 100"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const auto acctl = Enforce(DenySettings(), std::string("--json ") + c.options);
    Storm(programs, 8, 25);
    ASSERT_EQ(acctl->Stop(), 0) << acctl->Err();
    const std::string out = acctl->Out();
    const auto n = [&](const char* name) { return JsonCounter(out, name); };
    EXPECT_EQ(n("starts"), 200) << out;
    EXPECT_EQ(n("decided") + n("timedOut") + n("undecided"), n("starts")) << out;
    EXPECT_EQ(n("allowed") + n("blocked"), n("starts")) << out;
    EXPECT_EQ(n("published") + n("eventsDropped") + n("publishFailed"), n("decided")) << out;
    EXPECT_EQ(n("publishFailed"), 0) << out << acctl->Err();
    EXPECT_EQ(n("eventsDropped"), 0) << "200 fit in the publishing queue\n" << out;
    const std::vector<std::string> lines = EventLines();
    EXPECT_EQ(static_cast<long long>(lines.size()), n("published")) << out << acctl->Err();
    for (const std::string& line : lines) EXPECT_THAT(line, HasSubstr("\"ProcessId\":"));
  }
}

TEST_F(EnforceTest, MemfdSwitchRefusesAProgramRunFromMemoryAndPutsTheSettingBack) {
  // A program started from a memfd passes no mark; the switch closes that
  // way for the run.
  const int before = MemfdNoExec();
  REQUIRE(before < 0 ? "this kernel has no vm.memfd_noexec (Linux 6.3)" : "");
  const auto acctl = Enforce(DenySettings(), "--memfd-noexec --json");
  EXPECT_THAT(acctl->Err(), HasSubstr("acctl: no memfd can be executed here (vm.memfd_noexec 2"));
  EXPECT_EQ(MemfdNoExec(), 2);
  EXPECT_EQ(RunFromMemfd(), EACCES);
  ASSERT_EQ(acctl->Stop(), 0) << acctl->Err();
  EXPECT_THAT(acctl->Out(), HasSubstr("\"memfdExec\":0}"));
  EXPECT_EQ(MemfdNoExec(), before) << "the setting is put back at exit";
  if (before < 2) {
    EXPECT_EQ(RunFromMemfd(), 0) << "without the switch the way is open again";
  }
}

TEST_F(EnforceTest, AProgramRunThroughTheDynamicLoaderIsDecidedLikeItsExec) {
  // `ld.so PROGRAM` opens and maps the program: no exec of it is seen, so
  // the loader's open of its program is decided as its start. Every other
  // open on the marks is let through and not reported.
  const fs::path loader = DynamicLoader();
  REQUIRE(loader.empty() ? "no dynamic loader found" : "");
  const auto acctl = Enforce(DenySettings(), "--json");
  const std::string err = dir + "/loader.err";
  const struct {
    std::vector<std::string> args;
    int exitCode;
    const char* says;  // on stderr
  } cases[] = {
      {{loader, blocked}, 127, "Operation not permitted"},
      {{loader, "--argv0", "x", allowed}, 0, ""},  // an option with a value before the program
      {{loader, unwatched}, 0, ""},                 // not on a mark
      {{loader}, 1, "missing program name"},        // no program at all
      {{"/bin/cat", blocked}, 0, ""},               // a plain open of a marked program
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.args.back());
    EXPECT_EQ(Proc(c.args, "/dev/null", err).Wait().exitCode, c.exitCode) << Slurp(err);
    EXPECT_THAT(Slurp(err), HasSubstr(c.says));
  }
  ASSERT_EQ(acctl->Stop(), 0) << acctl->Err();
  EXPECT_THAT(EventLines(), ElementsAre(AllOf(HasSubstr("\"type\":122"), HasSubstr("\"FileName\":\"blocked\"")),
                                        AllOf(HasSubstr("\"type\":120"), HasSubstr("\"FileName\":\"allowed\""))));
  EXPECT_THAT(acctl->Out(), HasSubstr("\"starts\":2,"));
}

TEST_F(EnforceTest, GoldenImageAllowListRunsOnlyTheImagesContent) {
  std::string trueHash;
  ASSERT_EQ(host::engine::Sha256File("/usr/bin/true", &trueHash), 0);
  Write("categories.json", "[{ \"Name\": \"GoldenImage\", \"GUID\": \"eac00500000000000000000000000000\", "
                           "\"Include\": [\"(FileHash == " + trueHash + ")\"] }]");
  const std::string settings = R"J({ "mode": "AllowList", "enforcement": "ApplyRules",
    "allowListRules": [ { "ruleName": "Golden image", "categoryName": "GoldenImage",
                          "users": [ { "userName": "\\Everyone", "access": "Allow" } ] } ] })J";
  const fs::path same = Program("any-name", bin);
  const fs::path other = Program("false", bin, "/usr/bin/false");
  const fs::path changed = Program("changed", bin);
  std::ofstream(changed, std::ios::app) << '\0';

  const auto acctl = Enforce(settings);
  EXPECT_EQ(Start(same).exitCode, 0) << "the image's content runs under any name";
  EXPECT_EQ(Start(other).execError, EPERM);
  EXPECT_EQ(Start(changed).execError, EPERM) << "one byte more is another content";
  EXPECT_EQ(acctl->Stop(SIGINT), 0) << acctl->Err();
}

TEST_F(EnforceTest, TestModeLetsEverythingRunAndSighupSwitchesARuleOnForTheNextStartUnlessTheFileIsBad) {
  const auto acctl = Enforce(DenySettings("TestRules"));
  EXPECT_EQ(Start(blocked).exitCode, 0) << "test mode";
  EXPECT_EQ(Start(allowed).exitCode, 0);

  std::size_t reloads = 0;
  for (const bool on : {false, true}) {
    Write("settings.json", DenySettings("ApplyRules", on ? "On" : "Off"));
    acctl->Signal(SIGHUP);
    ASSERT_TRUE(acctl->WaitForErr("acctl: reloaded ", ++reloads)) << acctl->Err();
    const Started s = Start(blocked);
    EXPECT_EQ(on ? s.execError : s.exitCode, on ? EPERM : 0) << "from the next start the rule is " << on;
  }

  Write("settings.json", "{ \"mode\": \"DenyList\", ");
  acctl->Signal(SIGHUP);
  ASSERT_TRUE(acctl->WaitForErr("acctl: reload refused")) << acctl->Err();
  const std::string err = acctl->Err();
  const std::string refusal = err.substr(err.find("acctl: reload refused"));
  EXPECT_EQ(std::count(refusal.begin(), refusal.end(), '\n'), 1) << "one line: " << refusal;
  EXPECT_THAT(refusal, HasSubstr("settings.json"));
  EXPECT_EQ(Start(blocked).execError, EPERM) << "a file that does not load changes nothing";
  acctl->Signal(SIGUSR1);
  EXPECT_TRUE(acctl->WaitForErr("acctl: decided 5, allowed 3, blocked 2, test-mode 2")) << acctl->Err();
  EXPECT_EQ(acctl->Stop(), 0) << acctl->Err();
  EXPECT_THAT(EventLines(), ElementsAre(HasSubstr("\"type\":123"), HasSubstr("\"type\":121"), HasSubstr("\"type\":120"),
                                        HasSubstr("\"type\":122"), HasSubstr("\"type\":122")));
}

TEST_F(EnforceTest, StartsBeyondTheBusyDecidingThreadsAreTakenAtOnceAndDecided) {
  // Each decision is held 2 s: the first starts keep the threads that decide
  // where they read busy, so the others must be taken by the overflow reader
  // (each is traced as held when read) and decided by the pool.
  const auto acctl = Enforce(DenySettings(), "--decision-delay 2000 --decision-timeout 60000", true);
  std::vector<std::unique_ptr<Proc>> children;
  for (int i = 0; i < 6; ++i) children.push_back(std::make_unique<Proc>(std::vector<std::string>{i % 2 == 0 ? blocked : allowed}));
  for (const auto& child : children) EXPECT_TRUE(acctl->WaitHeld(child->Pid())) << acctl->Err();
  for (const auto& child : children)
    EXPECT_FALSE(child->Answered()) << "every start was read while the first decisions were still held";
  for (int i = 0; i < 6; ++i) {
    const Started s = children[static_cast<std::size_t>(i)]->Wait(15s);
    EXPECT_EQ(i % 2 == 0 ? s.execError : s.exitCode, i % 2 == 0 ? EPERM : 0) << i;
  }
  ASSERT_EQ(acctl->Stop(), 0) << acctl->Err();
  EXPECT_THAT(acctl->Err(), HasSubstr("decided 6, allowed 3, blocked 3, test-mode 0, timed out 0, undecided 0"));
  // With the listener's own account (events dropped, traces): one report
  // went missing once in a loaded sanitizer run, and this says where.
  EXPECT_EQ(EventLines().size(), 6u) << Slurp(events) << "\nacctl stderr:\n" << acctl->Err();
}

TEST_F(EnforceTest, StartNotDecidedInTimeOrHeldWhenTheListenerEndsIsAnsweredByThePolicy) {
  // The start is of the blocked program: whatever lets it run was not its
  // decision. After SIGKILL the kernel allows what the closed group held.
  // No start answered so is reported, and no mark outlives the listener.
  const char* held = "--decision-delay 60000 --decision-timeout 120000";
  const struct {
    const char* name;
    const char* options;
    int signal;  // sent once the start is held; else SIGTERM after its answer
    bool blocks;
    const char* counters;
  } cases[] = {
      {"too late, deny", "--decision-delay 2000 --decision-timeout 50 --on-timeout deny", 0, true,
       "decided 0, allowed 0, blocked 1, test-mode 0, timed out 1"},
      {"too late, allow", "--decision-delay 2000 --decision-timeout 50 --on-timeout allow", 0, false,
       "decided 0, allowed 1, blocked 0, test-mode 0, timed out 1"},
      {"SIGTERM", held, SIGTERM, false, "decided 0, allowed 1, blocked 0, test-mode 0, timed out 1"},
      {"SIGKILL", held, SIGKILL, false, ""},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const auto acctl = Enforce(DenySettings(), c.options, true);
    Proc start({blocked});
    if (c.signal != 0) {
      ASSERT_TRUE(acctl->WaitHeld(start.Pid())) << acctl->Err();
      acctl->Signal(c.signal);
    }
    const Started s = start.Wait(5s);
    EXPECT_EQ(c.blocks ? s.execError : s.exitCode, c.blocks ? EPERM : 0);
    EXPECT_EQ(c.signal == 0 ? acctl->Stop() : acctl->Exit(10s), c.signal == SIGKILL ? 128 + SIGKILL : 0) << acctl->Err();
    EXPECT_THAT(acctl->Err(), HasSubstr(c.counters));
    EXPECT_TRUE(EventLines().empty()) << Slurp(events);
    EXPECT_EQ(Start(blocked).exitCode, 0) << "no mark outlives the listener";
  }
}

TEST_F(EnforceTest, StartWhoseProgramOrProcessIsGoneBeforeTheDecisionIsStillAnswered) {
  const auto acctl = Enforce(DenySettings(), "--decision-delay 300 --decision-timeout 60000", true);

  // The program is deleted while its start waits: the file that was
  // started is still the one decided on, and it is still blocked.
  {
    Proc held({blocked});
    ASSERT_TRUE(acctl->WaitHeld(held.Pid())) << acctl->Err();
    fs::remove(blocked);
    EXPECT_EQ(held.Wait().execError, EPERM);
    EXPECT_TRUE(acctl->WaitForErr(blocked.string() + " was deleted before its start by process " +
                                 std::to_string(held.Pid())))
        << acctl->Err();
  }
  // The process is killed while its start waits: decided and reported all
  // the same, without its user.
  pid_t pid = 0;
  {
    Proc held({allowed});
    pid = held.Pid();
    ASSERT_TRUE(acctl->WaitHeld(pid)) << acctl->Err();
    held.Signal(SIGKILL);
    held.Exit();
  }
  EXPECT_TRUE(acctl->WaitForErr("enforce: process " + std::to_string(pid) + " is gone before its start"))
      << acctl->Err();
  EXPECT_EQ(Start(allowed).exitCode, 0) << "the listener goes on";
  EXPECT_EQ(acctl->Stop(), 0) << acctl->Err();
  EXPECT_THAT(acctl->Err(), HasSubstr("decided 3, allowed 2, blocked 1, test-mode 0, timed out 0, undecided 0"));
  EXPECT_THAT(EventLines(), ElementsAre(_, AllOf(HasSubstr("\"FileName\":\"allowed\""), HasSubstr("\"AccessUserId\":-1,")), _))
      << "the killed process's user is not known";
}

TEST_F(EnforceTest, MountMarkHoldsStartsAnywhereOnThatMount) {
  // A mount of our own: marking the one that holds /tmp would hold the
  // whole machine's starts.
  const fs::path mnt = dir + "/mnt";
  fs::create_directory(mnt);
  REQUIRE(::mount("acctl-test", mnt.c_str(), "tmpfs", 0, "size=8m,mode=0755") != 0
              ? std::string("cannot mount a tmpfs: ") + std::strerror(errno)
              : "");
  mounted = mnt.string();
  fs::create_directories(mnt / "deep" / "er");
  const fs::path deep = Program("blocked", mnt / "deep" / "er"), top = Program("allowed", mnt);
  const auto acctl = Enforce(DenySettings(), "", false, "--mount " + (mnt / "deep").string());
  EXPECT_EQ(Start(deep).execError, EPERM) << "below the marked path, in a subdirectory";
  EXPECT_EQ(Start(top).exitCode, 0);
  EXPECT_EQ(acctl->Stop(), 0) << acctl->Err();
  EXPECT_THAT(acctl->Err(), HasSubstr("decided 2, allowed 1, blocked 1"));
}

}  // namespace
