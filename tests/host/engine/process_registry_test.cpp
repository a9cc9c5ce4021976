// The procfs process registry against the test process itself, and against
// a made-up procfs for the parsing of awkward command names and pid reuse.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <vector>

#include "engine_test_support.h"
#include "host/services/process_registry.h"
#include "zel/rtl/objclient.h"

namespace {

using engine_test::ScratchDir;

std::string StatLine(int pid, const std::string& comm, int ppid, unsigned long long start) {
  std::string line = std::to_string(pid) + " (" + comm + ") S " + std::to_string(ppid);
  for (int field = 5; field <= 21; ++field) line += " " + std::to_string(field);
  return line + " " + std::to_string(start) + " 22 23\n";
}

// The description of the process with this id, or why there is none.
zel::result_t Describe(host::ProcessRegistry& registry, std::uint64_t id, ProcessDescription* d) {
  zel::RefPtr<IProcessObject> process;
  const zel::result_t r = registry.GetProcess(&id, process.Ref());
  return r != 0 ? r : process->GetDescription(d);
}

TEST(ProcessRegistry, DescribesTheTestProcess) {
  host::ProcessRegistry registry;
  std::uint64_t self = 0, parent = 0;
  ASSERT_EQ(registry.GetUniqueId(static_cast<std::uint32_t>(::getpid()), &self), 0);
  ASSERT_EQ(registry.GetUniqueId(static_cast<std::uint32_t>(::getppid()), &parent), 0);
  EXPECT_EQ(host::ProcessRegistry::PidOf(self), static_cast<std::uint32_t>(::getpid()));
  EXPECT_NE(self, parent);

  ProcessDescription d, pd;
  ASSERT_EQ(Describe(registry, self, &d), 0);
  EXPECT_EQ(d.processId, static_cast<std::uint32_t>(::getpid()));
  EXPECT_EQ(d.parentUniqueId, parent);
  const std::string exe = std::filesystem::read_symlink("/proc/self/exe").string();
  EXPECT_EQ(d.imagePath.view(), engine_test::W(exe).view());
  EXPECT_EQ(d.currentDirectory.view(), engine_test::W(std::filesystem::current_path().string()).view());

  // The parent through its own id, as an event producer walks up.
  ASSERT_EQ(Describe(registry, d.parentUniqueId, &pd), 0);
  EXPECT_EQ(pd.processId, static_cast<std::uint32_t>(::getppid()));

  // Same pid, another start time: a different process.
  const std::uint64_t stale = self + (1ull << host::ProcessRegistry::kPidBits);
  zel::RefPtr<IProcessObject> none;
  EXPECT_EQ(registry.GetProcess(&stale, none.Ref()), zel::result::NotFound);
  EXPECT_FALSE(none);
  EXPECT_EQ(Describe(registry, 0, &d), zel::result::NotFound);
}

// Where pidfds carry serials, ids are asked of the kernel, not of procfs:
// a later process has a larger stamp, a pid's id stays the same while its
// process lives, and an ended child is still described with its parent.
TEST(ProcessRegistry, PidfdSerialsOrderProcessesByAge) {
  host::ProcessRegistry registry;
  if (!registry.UsesPidfdSerials()) GTEST_SKIP() << "this kernel's pidfds carry no serial (pidfs, Linux 6.9)";
  const auto self = static_cast<std::uint32_t>(::getpid());
  std::uint64_t mine = 0, again = 0;
  ASSERT_EQ(registry.GetUniqueId(self, &mine), 0);
  ASSERT_EQ(registry.GetUniqueId(self, &again), 0);
  EXPECT_EQ(mine, again);

  std::uint64_t children[2] = {};
  for (std::uint64_t& id : children) {
    int ready[2];
    ASSERT_EQ(::pipe(ready), 0);
    const pid_t child = ::fork();
    if (child == 0) {
      ::close(ready[1]);
      char c;
      (void)!::read(ready[0], &c, 1);  // lives until its id is taken
      ::_exit(0);
    }
    ASSERT_GT(child, 0);
    EXPECT_EQ(registry.GetUniqueId(static_cast<std::uint32_t>(child), &id), 0);
    ::close(ready[0]);
    ::close(ready[1]);
    ::waitpid(child, nullptr, 0);
    EXPECT_EQ(host::ProcessRegistry::PidOf(id), static_cast<std::uint32_t>(child));
  }
  const unsigned shift = host::ProcessRegistry::kPidBits;
  EXPECT_GT(children[0] >> shift, mine >> shift) << "a child is younger than its parent";
  EXPECT_GT(children[1] >> shift, children[0] >> shift) << "the second child is younger than the first";

  // Both children have ended: described from memory, with this process as parent.
  ProcessDescription d;
  ASSERT_EQ(Describe(registry, children[1], &d), 0);
  EXPECT_EQ(d.processId, host::ProcessRegistry::PidOf(children[1]));
  EXPECT_EQ(d.parentUniqueId, mine);
  EXPECT_TRUE(d.imagePath.view().empty());
}

TEST(ProcessRegistry, ParsesCommandNamesWithParenthesesAndBlanks) {
  ScratchDir proc;
  proc.Write("42/stat", StatLine(42, "we ird) (name", 7, 123456));
  proc.Write("7/stat", StatLine(7, "init", 0, 99));
  // A read that fails after the open succeeded, as /proc/PID/cmdline of a
  // process that has just ended does (ESRCH): a directory fails with EISDIR.
  std::filesystem::create_directories(std::filesystem::path(proc.Path()) / "7" / "cmdline");
  host::ProcessRegistry registry(proc.Path());

  std::uint64_t id = 0;
  ASSERT_EQ(registry.GetUniqueId(42, &id), 0);
  EXPECT_EQ(id, (123456ull << 22) | 42);
  zel::RefPtr<IProcessObject> process;
  ASSERT_EQ(registry.GetProcessByPid(42, process.Ref()), 0);
  ProcessDescription d;
  ASSERT_EQ(process->GetDescription(&d), 0);
  EXPECT_EQ(d.parentUniqueId, (99ull << 22) | 7);
  EXPECT_TRUE(d.imagePath.empty());  // no exe link in the made-up tree

  // The top process has no parent id; its unreadable command line is only left empty.
  ASSERT_EQ(registry.GetProcessByPid(7, process.Ref()), 0);
  ASSERT_EQ(process->GetDescription(&d), 0);
  EXPECT_EQ(d.parentUniqueId, 0u);
  EXPECT_TRUE(d.commandLine.empty());

  proc.Write("43/stat", "43 (truncated) S 1 2");
  EXPECT_EQ(registry.GetUniqueId(43, &id), zel::result::NotFound);
  std::string badStart = StatLine(45, "x", 1, 5);
  badStart.replace(badStart.rfind(" 5 22 23"), 8, " 5x 22 23");
  proc.Write("45/stat", badStart);
  EXPECT_EQ(registry.GetUniqueId(45, &id), zel::result::NotFound) << "a start time that is not a number";
  std::string noNewline = StatLine(46, "y", 1, 77);
  noNewline.resize(noNewline.find(" 22 23"));
  proc.Write("46/stat", noNewline);
  ASSERT_EQ(registry.GetUniqueId(46, &id), 0) << "the start time is the last field given";
  EXPECT_EQ(id, (77ull << 22) | 46);
  EXPECT_EQ(registry.GetUniqueId(44, &id), zel::result::NotFound);
}

TEST(ProcessRegistry, AProcessGivenAnIdIsStillDescribedAfterItEnds) {
  ScratchDir proc;
  proc.Write("7/stat", StatLine(7, "sh", 1, 50));
  proc.Write("43/stat", StatLine(43, "never asked", 7, 100));
  host::ProcessRegistry registry(proc.Path());
  std::filesystem::remove_all(std::filesystem::path(proc.Path()) / "43");

  // A burst of ended processes, more than were once kept, while their
  // events wait to be published: the first one is still described, with
  // its parent that lives on.
  std::vector<std::uint64_t> ids;
  for (int pid = 100; pid < 400; ++pid) {
    proc.Write(std::to_string(pid) + "/stat", StatLine(pid, "short", 7, 100));
    ASSERT_EQ(registry.GetUniqueId(static_cast<std::uint32_t>(pid), &ids.emplace_back()), 0);
    std::filesystem::remove_all(std::filesystem::path(proc.Path()) / std::to_string(pid));
  }
  ProcessDescription d;
  for (const std::uint64_t ended : {ids.front(), ids.back()}) {
    ASSERT_EQ(Describe(registry, ended, &d), 0) << ended;
    EXPECT_EQ(d.processId, host::ProcessRegistry::PidOf(ended));
    EXPECT_EQ(d.parentUniqueId, (50ull << 22) | 7);
  }
  EXPECT_EQ(Describe(registry, (100ull << 22) | 43, &d), zel::result::NotFound) << "never given an id";

  // The pid taken again by a younger process: the remembered one is still
  // the one described by its id, and a parent pid now held by a process
  // younger than the child is not its parent.
  proc.Write("100/stat", StatLine(100, "younger", 1, 900));
  proc.Write("7/stat", StatLine(7, "reused", 1, 800));
  ASSERT_EQ(Describe(registry, ids.front(), &d), 0);
  EXPECT_EQ(d.processId, 100u);
  EXPECT_EQ(d.parentUniqueId, 0u);
}

}  // namespace
