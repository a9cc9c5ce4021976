// The host's cgroup v2 attach: the mount lookup, names it refuses, roots
// that are no cgroup2 hierarchy, and, where this process may write the
// hierarchy, a real attach of a thread into a fresh group that is removed
// again.
#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>

#include "host/services/cgroups_manager.h"
#include "support/temp_tree.h"
#include "zel/strings/conversions.h"

namespace {

namespace fs = std::filesystem;

std::string ReadAll(const std::string& path) {
  std::ifstream in(path);
  std::stringstream s;
  s << in.rdbuf();
  return s.str();
}

std::int32_t Tid() { return static_cast<std::int32_t>(::syscall(SYS_gettid)); }

TEST(CgroupsManager, FindsTheCgroup2MountInMountinfo) {
  testsupport::TempDir dir;
  const std::string file = dir.path() + "/mountinfo";
  std::ofstream(file) << "31 23 0:28 / /sys/fs/cgroup rw,relatime - tmpfs tmpfs rw,mode=755\n"
                         "32 31 0:29 / /sys/fs/cgroup/cpu rw,relatime shared:7 - cgroup cgroup rw,cpu\n"
                         "41 31 0:38 / /sys/fs/my\\040cgroups rw,relatime shared:9 master:2 - cgroup2 cgroup2 rw\n"
                         "42 31 0:39 / /second rw - cgroup2 cgroup2 rw\n";
  // Optional fields before "-" are skipped; the escaped blank is a blank; the first one wins.
  EXPECT_EQ(host::CgroupsManager::FindCgroup2Mount(file), "/sys/fs/my cgroups");

  std::ofstream(file) << "32 31 0:29 / /sys/fs/cgroup/cpu rw - cgroup cgroup rw,cpu\nshort line\n";
  EXPECT_EQ(host::CgroupsManager::FindCgroup2Mount(file), "");
  EXPECT_EQ(host::CgroupsManager::FindCgroup2Mount(dir.path() + "/missing"), "");

  // The constructor reads <procRoot>/self/mountinfo.
  fs::create_directories(dir.path() + "/proc/self");
  std::ofstream(dir.path() + "/proc/self/mountinfo") << "42 31 0:39 / /cg2 rw - cgroup2 cgroup2 rw\n";
  EXPECT_EQ(host::CgroupsManager({}, dir.path() + "/proc").Root(), "/cg2");
}

TEST(CgroupsManager, EmptyNameIsNothingToDoAndBadInputIsRefused) {
  testsupport::TempDir dir;
  host::CgroupsManager manager(dir.path());  // not a cgroup2 hierarchy
  ICgroupsManager* service = &manager;
  const zel::wstring_t task = zel::Utf8ToWide("scan");

  EXPECT_EQ(service->AddToCgroup(task, zel::string_t(""), Tid()), zel::result::NoError);
  EXPECT_EQ(service->AddToCgroup(task, zel::string_t(""), -5), zel::result::NoError);

  for (const char* bad : {"a//b", "a/../b", "..", ".", "a/", "/", "a/./b"}) {
    EXPECT_EQ(service->AddToCgroup(task, zel::string_t(bad), Tid()), zel::result::InvalidArgument) << bad;
  }
  EXPECT_EQ(service->AddToCgroup(task, zel::string_t("group"), 0), zel::result::InvalidArgument);

  // A plain directory is refused before anything is made in it.
  EXPECT_EQ(service->AddToCgroup(task, zel::string_t("group"), Tid()), zel::result::NotSupported);
  EXPECT_TRUE(fs::is_empty(dir.path()));

  host::CgroupsManager none("/nonexistent/cgroup2");
  EXPECT_EQ(none.AddToCgroup(task, zel::string_t("group"), Tid()), zel::result::NotSupported);
}

// The cgroup of this process in the unified hierarchy ("0::/path"), as a
// relative group name; empty for the root.
std::string OwnCgroup() {
  std::istringstream in(ReadAll("/proc/self/cgroup"));
  for (std::string line; std::getline(in, line);) {
    if (line.starts_with("0::")) {
      std::string path = line.substr(3);
      while (path.starts_with('/')) path.erase(0, 1);
      return path;
    }
  }
  return {};
}

TEST(CgroupsManager, AttachesAThreadToANewThreadedGroup) {
  host::CgroupsManager manager;
  const zel::wstring_t task = zel::Utf8ToWide("scan");
  const bool usable = !manager.Root().empty() && ::geteuid() == 0 && ::access(manager.Root().c_str(), W_OK) == 0;
  const std::string own = OwnCgroup();
  const std::string outer = (own.empty() ? "" : own + "/") + "ac_test_" + std::to_string(::getpid());
  const std::string name = outer + "/worker";

  if (!usable) {
    const zel::result_t r = manager.AddToCgroup(task, zel::string_t(name.c_str()), Tid());
    EXPECT_TRUE(r == zel::result::NotSupported || r == zel::result::AccessDenied) << std::hex << r;
    EXPECT_FALSE(fs::exists(manager.Root() + "/" + outer));
    return;
  }

  zel::result_t result = 1;
  std::int32_t tid = 0;
  std::string threads, membership, type;
  std::thread worker([&] {
    tid = Tid();
    result = manager.AddToCgroup(task, zel::string_t(name.c_str()), tid);
    threads = ReadAll(manager.Root() + "/" + name + "/cgroup.threads");
    membership = ReadAll("/proc/self/task/" + std::to_string(tid) + "/cgroup");
    type = ReadAll(manager.Root() + "/" + name + "/cgroup.type");
  });
  worker.join();  // the thread leaves the group by ending

  EXPECT_EQ(result, zel::result::NoError);
  EXPECT_EQ(threads, std::to_string(tid) + "\n");
  EXPECT_NE(membership.find("0::/" + name + "\n"), std::string::npos) << membership;
  EXPECT_EQ(type, "threaded\n");
  // The calling thread stayed where it was.
  EXPECT_EQ(ReadAll("/proc/self/task/" + std::to_string(Tid()) + "/cgroup").find(name), std::string::npos);

  EXPECT_EQ(manager.RemoveCgroup(name), zel::result::NoError);
  EXPECT_EQ(manager.RemoveCgroup(outer), zel::result::NoError);
  EXPECT_FALSE(fs::exists(manager.Root() + "/" + outer));
  EXPECT_LT(manager.RemoveCgroup(outer), 0);
}

}  // namespace
