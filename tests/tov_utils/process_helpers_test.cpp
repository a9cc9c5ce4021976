// /proc readers: procfs root from the environment, kernel module list,
// executable path, descriptor paths (also too long ones), the long-path
// text, and a process's root and working directory.
#include "tov_utils/process_helpers.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include "support/temp_tree.h"
#include "tov_utils/file_system.h"

namespace {

TEST(ProcfsRoot, FromTheEnvironmentWhenItExists) {
  testsupport::TempDir dir;
  ::unsetenv(tools::kProcfsRootVariable);
  EXPECT_EQ(tools::detail::ComputeProcfsRoot(), "/proc/");
  ::setenv(tools::kProcfsRootVariable, "", 1);
  EXPECT_EQ(tools::detail::ComputeProcfsRoot(), "/proc/");
  ::setenv(tools::kProcfsRootVariable, "/host/proc/does/not/exist", 1);
  EXPECT_EQ(tools::detail::ComputeProcfsRoot(), "/proc/");
  ::setenv(tools::kProcfsRootVariable, dir.path().c_str(), 1);
  EXPECT_EQ(tools::detail::ComputeProcfsRoot(), dir.path() + "/");
  ::setenv(tools::kProcfsRootVariable, (dir.path() + "/").c_str(), 1);
  EXPECT_EQ(tools::detail::ComputeProcfsRoot(), dir.path() + "/");
  ::unsetenv(tools::kProcfsRootVariable);
}

TEST(KernelModules, PrefixesLinesAndMissingFiles) {
  testsupport::TempDir dir;
  const std::string modules = dir / "modules";
  testsupport::WriteFile(modules, "ext4 1000 1 - Live 0x0\nredirfs2 10 0 - Live 0x0\nnfs 1 0 - Live 0x0\n");
  EXPECT_EQ(tools::FindKernelModule("ext4", modules.c_str()), 0);
  EXPECT_EQ(tools::FindKernelModule("nfs", modules.c_str()), 0);
  EXPECT_EQ(tools::FindKernelModule("redirfs", modules.c_str()), 0) << "a longer name with the same start counts";
  EXPECT_EQ(tools::FindKernelModule("xfs", modules.c_str()), 1);
  EXPECT_EQ(tools::FindKernelModule("1000", modules.c_str()), 1) << "only the start of a line";
  EXPECT_EQ(tools::FindKernelModule("ext4", (dir / "none").c_str()), zel::result::FileNotFound);
}

TEST(ProcessHelpers, ExecutablePathIsThisProgram) {
  const auto path = tools::GetExecutablePath();
  struct stat a {}, b {};
  ASSERT_EQ(::stat(std::string(path.view()).c_str(), &a), 0);
  ASSERT_EQ(::stat("/proc/self/exe", &b), 0);
  EXPECT_EQ(a.st_ino, b.st_ino);
  EXPECT_EQ(a.st_dev, b.st_dev);
}

TEST(ProcessHelpers, PathBehindADescriptor) {
  testsupport::TempDir dir;
  const std::string file = dir / "f";
  testsupport::WriteFile(file);
  const int fd = ::open(file.c_str(), O_RDONLY | O_CLOEXEC);
  ASSERT_GE(fd, 0);
  zel::basic_string_t<char> path("stale");
  EXPECT_EQ(tools::GetPathByFd(fd, path), 0);
  EXPECT_EQ(std::string(path.view()), file);
  ::close(fd);
  EXPECT_EQ(tools::GetPathByFd(fd, path), zel::ResultFromErrno(ENOENT));
}

TEST(ProcessHelpers, PathBehindADescriptorTooLongForTheBuffer) {
  testsupport::TempDir dir;
  const std::string deep = testsupport::MakeDeepChain(dir.path(), 200, 5000, "leaf");
  tools::LongPathCursor cursor;  // reaches the leaf's directory a chunk at a time
  ASSERT_EQ(tools::OpenLongPath(cursor, deep.c_str()), 0);
  const int fd = ::openat(cursor.fd, cursor.Name(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  ASSERT_GE(fd, 0);
  zel::basic_string_t<char> path;
  EXPECT_EQ(tools::GetPathByFd(fd, path), zel::result::LinkTargetTooLong);
  ::close(fd);
}

TEST(ProcessHelpers, LongPathText) {
  EXPECT_EQ(tools::DescribeLongPath(2049, 1234567890123ull),
            "<PATH IS TOO LONG> (device: 2049, inode: 1234567890123)");
  EXPECT_EQ(std::u16string(tools::kLongPathTextW), u"<PATH IS TOO LONG>");
}

TEST(ProcessHelpers, RootAndWorkingDirectoryOfAProcess) {
  int fd = -1;
  ASSERT_EQ(tools::OpenProcessRoot(::getpid(), fd), 0);
  struct stat viaFd {}, root {};
  ASSERT_EQ(::fstat(fd, &viaFd), 0);
  ASSERT_EQ(::stat("/", &root), 0);
  EXPECT_EQ(viaFd.st_ino, root.st_ino);

  const int previous = fd;
  ASSERT_EQ(tools::OpenProcessCwd(::getpid(), fd), 0);
  struct stat cwd {};
  ASSERT_EQ(::fstat(fd, &viaFd), 0);
  ASSERT_EQ(::stat(".", &cwd), 0);
  EXPECT_EQ(viaFd.st_ino, cwd.st_ino);
  EXPECT_EQ(::fcntl(previous, F_GETFD), -1) << "the former descriptor was closed";
  EXPECT_NE(::fcntl(fd, F_GETFD) & FD_CLOEXEC, 0);

  // No such process: the old descriptor goes and the failure is general.
  EXPECT_EQ(tools::OpenProcessRoot(0x7FFFFFF0, fd), zel::result::UnspecifiedError);
  EXPECT_LT(fd, 0);
}

}  // namespace
