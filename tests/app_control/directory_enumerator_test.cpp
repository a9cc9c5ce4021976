// DirectoryEnumerator over trees made in a scratch directory: what is
// delivered and what is entered, links, pseudo file systems, special files,
// long paths, odd names, and descriptors (one per level, none left behind).
#include "app_control/directory_enumerator.h"

#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <set>
#include <cstring>
#include <string>
#include <vector>

#include "support/counting_objects.h"
#include "support/fake_file_services.h"
#include "support/temp_tree.h"

namespace {

using testsupport::MakeObject;
using tov::app_control::DirectoryEnumerator;

struct WalkResult {
  zel::result_t open = 0;
  zel::result_t end = 0;                 // what the last Advance gave
  std::vector<std::string> delivered;    // full paths, "." and ".." dropped
  std::size_t dots = 0;                  // "." and ".." seen
};

WalkResult Walk(const std::string& root, IPathMatcher* strategy = nullptr) {
  WalkResult w;
  DirectoryEnumerator e;
  w.open = e.Open(tov::NativePath(root.c_str()), strategy);
  if (ZEL_FAILED(w.open)) return w;
  for (;;) {
    const std::string name = e.CurrentName();
    if (name == "." || name == "..") {
      ++w.dots;
    } else {
      std::string dir(e.CurrentDirectory().view());
      if (!dir.empty() && dir.back() != '/') dir += '/';
      w.delivered.push_back(dir + name);
    }
    w.end = e.Advance();
    if (w.end != 0) break;
  }
  return w;
}

std::set<std::string> AsSet(const std::vector<std::string>& v) { return {v.begin(), v.end()}; }

// Every walk must give back what it opened.
class EnumeratorTest : public ::testing::Test {
 protected:
  void SetUp() override { fdsBefore = testsupport::OpenDescriptorCount(); }
  void TearDown() override { EXPECT_EQ(testsupport::OpenDescriptorCount(), fdsBefore); }

  testsupport::TempDir dir;
  int fdsBefore = 0;
};

// Every kind of entry is delivered once; directories are entered, links
// never followed, and names kept byte for byte.
TEST_F(EnumeratorTest, DeliversEveryEntryAndEntersOnlyDirectories) {
  for (const char* d : {"sub", "sub/deeper", "empty", "real", "d\xff\xfe"}) testsupport::MakeDir(dir / d);
  for (const char* f : {"a", "sub/b", "sub/deeper/c", "real/f", "d\xff\xfe/f\xc3\x28\x80"})
    testsupport::WriteFile(dir / f);
  ASSERT_EQ(::symlink((dir / "real").c_str(), (dir / "to-dir").c_str()), 0);
  ASSERT_EQ(::symlink((dir / "real/f").c_str(), (dir / "to-file").c_str()), 0);
  ASSERT_EQ(::symlink(dir.path().c_str(), (dir / "real/loop").c_str()), 0);
  ASSERT_EQ(::symlink("nowhere", (dir / "dangling").c_str()), 0);
  ASSERT_EQ(::mkfifo((dir / "fifo").c_str(), 0644), 0);  // delivered without blocking
  std::set<std::string> expected;
  for (const char* e : {"a", "sub/b", "sub/deeper/c", "real/f", "d\xff\xfe/f\xc3\x28\x80", "to-dir", "to-file",
                        "real/loop", "dangling", "fifo"})
    expected.insert(dir / e);
  if (::mknod((dir / "null").c_str(), S_IFCHR | 0666, makedev(1, 3)) == 0) expected.insert(dir / "null");

  const WalkResult w = Walk(dir.path());
  EXPECT_EQ(w.end, 1);
  EXPECT_EQ(AsSet(w.delivered), expected);
  EXPECT_EQ(w.delivered.size(), expected.size()) << "nothing twice";
  EXPECT_EQ(w.dots, 12u) << "each of the six directories gives its dot entries to the caller";
}

// The root as given: joined with one slash, "//" kept, a link followed, an
// empty path the working directory; open failures are errno results.
TEST_F(EnumeratorTest, RootForms) {
  testsupport::MakeDir(dir / "a");
  testsupport::MakeDir(dir / "a/sub");
  testsupport::WriteFile(dir / "a/sub/f");
  testsupport::WriteFile(dir / "file");
  ASSERT_EQ(::symlink((dir / "a").c_str(), (dir / "link").c_str()), 0);
  struct Case {
    std::string root;
    zel::result_t open;
    std::set<std::string> delivered;
  };
  const Case cases[] = {
      {dir / "a/", 0, {dir / "a/sub/f"}},
      {dir / "a//", 0, {dir / "a//sub/f"}},
      {dir / "link", 0, {dir / "link/sub/f"}},
      {"", 0, {"sub/f"}},
      {dir / "missing", zel::ResultFromErrno(ENOENT), {}},
      {dir / "file", zel::ResultFromErrno(ENOTDIR), {}},
      {dir / (std::string(5000, 'n') + "/x"), zel::result::FileNotFound, {}},  // longer than a chunk
  };
  char saved[4096];
  ASSERT_NE(::getcwd(saved, sizeof saved), nullptr);
  ASSERT_EQ(::chdir((dir / "a").c_str()), 0);
  for (const Case& c : cases) {
    SCOPED_TRACE(c.root.substr(0, 100));
    const WalkResult w = Walk(c.root);
    EXPECT_EQ(w.open, c.open);
    EXPECT_EQ(AsSet(w.delivered), c.delivered);
  }
  ASSERT_EQ(::chdir(saved), 0);
}

TEST_F(EnumeratorTest, StrategyDecidesWhichDirectoriesAreEntered) {
  testsupport::MakeDir(dir / "in");
  testsupport::MakeDir(dir / "out");
  testsupport::WriteFile(dir / "in/1");
  testsupport::WriteFile(dir / "out/2");
  auto matcher = MakeObject<testsupport::FakePathMatcher>();
  matcher->rejected.insert(dir / "out");

  const WalkResult w = Walk(dir.path(), matcher.Get());
  EXPECT_EQ(AsSet(w.delivered), (std::set<std::string>{dir / "in/1", dir / "out"}));
  // Asked once per directory, as a directory, never for files or the root.
  std::set<std::pair<std::string, std::uint32_t>> asked(matcher->calls.begin(), matcher->calls.end());
  EXPECT_EQ(asked, (std::set<std::pair<std::string, std::uint32_t>>{{dir / "in", 1}, {dir / "out", 1}}));
  EXPECT_EQ(matcher->calls.size(), 2u);
  EXPECT_EQ(testsupport::RefCountOf(matcher.Get()), 1u) << "the enumerator released its reference";
}

// A pseudo file system given as the root is walked, its subdirectories
// delivered but not entered; one below the root is not entered.
TEST_F(EnumeratorTest, PseudoFileSystems) {
  const WalkResult self = Walk("/proc/self");
  const auto got = AsSet(self.delivered);
  EXPECT_EQ(got.count("/proc/self/status"), 1u);
  EXPECT_EQ(got.count("/proc/self/fd"), 1u);
  for (const auto& p : got) EXPECT_EQ(p.find('/', std::string("/proc/self/").size()), std::string::npos) << p;

  testsupport::MakeDir(dir / "proc");
  testsupport::WriteFile(dir / "f");
  if (::mount("proc", (dir / "proc").c_str(), "proc", 0, nullptr) != 0) {
    GTEST_SKIP() << "cannot mount proc here: " << std::strerror(errno);
  }
  const WalkResult w = Walk(dir.path());
  ::umount2((dir / "proc").c_str(), MNT_DETACH);
  EXPECT_EQ(AsSet(w.delivered), (std::set<std::string>{dir / "f", dir / "proc"}));
}

TEST_F(EnumeratorTest, PathsFarBeyondPathMaxAreReachedAndListed) {
  const std::string deepest = testsupport::MakeDeepChain(dir.path(), 200, 12000, "leaf");
  ASSERT_GE(deepest.size(), 12000u);
  testsupport::WriteFile(dir / "top");

  const WalkResult w = Walk(dir.path());
  EXPECT_EQ(w.end, 1);
  EXPECT_EQ(AsSet(w.delivered), (std::set<std::string>{dir / "top", deepest + "/leaf"}));

  const WalkResult inner = Walk(deepest);
  EXPECT_EQ(AsSet(inner.delivered), (std::set<std::string>{deepest + "/leaf"}));
}

TEST_F(EnumeratorTest, RunningOutOfDescriptorsLeavesDeepDirectoriesUnentered) {
  // 40 levels, one descriptor each, under a limit of 24: the walk must finish,
  // deliver the first directory it could not open (the path of any that fails
  // to open, unreadable ones too) and leak nothing.
  const std::string deepest = testsupport::MakeDeepChain(dir.path(), 3, dir.path().size() + 40 * 5, "leaf");
  const pid_t child = ::fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    const struct rlimit limit {24, 24};
    if (::setrlimit(RLIMIT_NOFILE, &limit) != 0) ::_exit(3);
    const int before = testsupport::OpenDescriptorCount();
    const WalkResult w = Walk(dir.path());
    if (w.open != 0 || w.end != 1) ::_exit(1);
    if (w.delivered.size() != 1) ::_exit(4);  // one unentered directory, the leaf out of reach
    if (deepest.rfind(w.delivered[0], 0) != 0) ::_exit(5);
    if (testsupport::OpenDescriptorCount() != before) ::_exit(6);
    ::_exit(0);
  }
  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 0);
}

// Examine leaves dot entries to the caller; a second Open closes the former
// walk (the fixture counts the descriptors).
TEST_F(EnumeratorTest, ExamineAndReopen) {
  testsupport::MakeDir(dir / "only");
  testsupport::MakeDir(dir / "only/b");
  DirectoryEnumerator e;
  ASSERT_EQ(e.Open(tov::NativePath(dir.path().c_str()), nullptr), 0);
  ASSERT_EQ(e.Open(tov::NativePath((dir / "only/b").c_str()), nullptr), 0);
  std::set<std::string> names;
  do {
    EXPECT_FALSE(e.Examine());
    names.insert(e.CurrentName());
  } while (e.Advance() == 0);
  EXPECT_EQ(names, (std::set<std::string>{".", ".."}));
  EXPECT_TRUE(e.AtEnd());
  ASSERT_EQ(e.Open(tov::NativePath((dir / "only").c_str()), nullptr), 0);
  e.Close();
  EXPECT_TRUE(e.AtEnd());
}

}  // namespace
