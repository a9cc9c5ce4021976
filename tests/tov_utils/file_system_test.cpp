// File-system helpers: the long-path cursor at and around its limits, the
// pseudo file system test (short and long paths, relative to a
// descriptor), close-on-exec, atomic replacement and extended attributes.
#include "tov_utils/file_system.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string>
#include <utility>

#include "support/temp_tree.h"

namespace {

class FileSystemTest : public ::testing::Test {
 protected:
  void SetUp() override { fdsBefore = testsupport::OpenDescriptorCount(); }
  void TearDown() override { EXPECT_EQ(testsupport::OpenDescriptorCount(), fdsBefore); }

  // A path of exactly `length` bytes below the scratch directory, built from
  // components of 200 bytes; its directories exist, and the last name is a
  // file when `create` is set.
  std::string PathOfLength(std::size_t length, bool create = false) {
    const std::string parent = testsupport::MakeDeepChain(dir.path(), 200, length - 210, "");
    const std::string leaf(length - parent.size() - 1, 'z');
    if (create) testsupport::MakeDeepChain(dir.path(), 200, length - 210, leaf);
    return parent + "/" + leaf;
  }

  testsupport::TempDir dir;
  int fdsBefore = 0;
};

TEST_F(FileSystemTest, LongPathsGoThroughDescriptors) {
  for (std::size_t length : {4095u, 4096u, 8191u, 8192u, 12000u}) {
    SCOPED_TRACE(length);
    const std::string probe = PathOfLength(length, true);
    ASSERT_EQ(probe.size(), length);

    tools::LongPathCursor cursor;
    ASSERT_EQ(tools::OpenLongPath(cursor, probe.c_str()), 0);
    if (length < 4096) {  // short paths take the direct route
      EXPECT_EQ(cursor.fd, AT_FDCWD);
      EXPECT_EQ(cursor.buffer, nullptr);
      EXPECT_EQ(cursor.Name(), probe.c_str());
    } else {
      EXPECT_NE(cursor.buffer, nullptr);
      EXPECT_GE(cursor.fd, 0);
      // The name is what is left after whole chunks: a tail of the path.
      const std::string name(cursor.Name());
      EXPECT_LT(name.size(), tools::kLongPathChunk);
      ASSERT_LE(name.size(), probe.size());
      EXPECT_EQ(probe.compare(probe.size() - name.size(), name.size(), name), 0);
      EXPECT_EQ(probe[probe.size() - name.size() - 1], '/');
    }
    struct stat st {};
    EXPECT_EQ(::fstatat(cursor.fd, cursor.Name(), &st, AT_SYMLINK_NOFOLLOW), 0);
    EXPECT_TRUE(S_ISREG(st.st_mode));
  }
}

TEST_F(FileSystemTest, CursorFailures) {
  std::string withSlashes = dir.path() + "/missing";
  while (withSlashes.size() < 4200) withSlashes += "/" + std::string(100, 'm');
  const std::pair<std::string, zel::result_t> cases[] = {
      {std::string(5000, 'c'), zel::result::FileNotFound},
      {dir.path() + "/" + std::string(5000, 'c') + "/x", zel::result::FileNotFound},
      {withSlashes, zel::ResultFromErrno(ENOENT)},
      // The leading "/" is the only cut: the walk starts at "/" and then
      // meets a component too long for any call.
      {"/" + std::string(4200, 'q'), zel::result::FileNotFound},
  };
  for (const auto& [path, expected] : cases) {
    tools::LongPathCursor cursor;
    EXPECT_EQ(tools::OpenLongPath(cursor, path.c_str()), expected) << path.substr(0, 40);
    EXPECT_EQ(cursor.buffer, nullptr);
  }
}

TEST_F(FileSystemTest, PseudoFileSystemsAreNotScannable) {
  struct Case {
    const char* path;
    zel::result_t expected;
  };
  const Case cases[] = {
      {"/proc", 0}, {"/proc/self/status", 0}, {"/sys", 0}, {"/", 1}, {"/dev/null", 1},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.path);
    EXPECT_EQ(tools::IsScannableFilesystem(c.path), c.expected);
    EXPECT_EQ(tools::IsScannableFilesystem(AT_FDCWD, c.path), c.expected);
  }
  EXPECT_EQ(tools::IsScannableFilesystem(dir.path().c_str()), 1);
  EXPECT_EQ(tools::IsScannableFilesystem((dir / "missing").c_str()), zel::ResultFromErrno(ENOENT));

  // Relative to a directory descriptor.
  const int proc = ::open("/proc", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  const int tmp = ::open(dir.path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  ASSERT_TRUE(proc >= 0 && tmp >= 0);
  EXPECT_EQ(tools::IsScannableFilesystem(proc, "self"), 0);
  EXPECT_EQ(tools::IsScannableFilesystem(tmp, "."), 1);
  EXPECT_EQ(tools::IsScannableFilesystem(tmp, "nothing"), zel::ResultFromErrno(ENOENT));
  ::close(tmp);
  ::close(proc);
}

TEST_F(FileSystemTest, ScannableForLongPaths) {
  const std::string file = PathOfLength(12000, true);
  EXPECT_EQ(tools::IsScannableFilesystem(file.c_str()), 1);
  EXPECT_EQ(tools::IsScannableFilesystem((file + "-missing").c_str()), zel::ResultFromErrno(ENOENT));
  // An absolute long path: the walk opens "/" and then meets a component too
  // long for any call (errno cleared first, so a stale one cannot pass).
  errno = 0;
  EXPECT_EQ(tools::IsScannableFilesystem(("/" + std::string(4200, 'q')).c_str()), zel::ResultFromErrno(ENAMETOOLONG));
  const std::string tooLong = dir.path() + "/" + std::string(5000, 'c');
  EXPECT_LT(tools::IsScannableFilesystem(tooLong.c_str()), 0);
}

TEST_F(FileSystemTest, CloseOnExecSetAndCleared) {
  const int fd = ::open(dir.path().c_str(), O_RDONLY | O_DIRECTORY);
  ASSERT_GE(fd, 0);
  EXPECT_TRUE(tools::SetCloseOnExec(fd));
  EXPECT_NE(::fcntl(fd, F_GETFD) & FD_CLOEXEC, 0);
  EXPECT_TRUE(tools::SetCloseOnExec(fd));  // already so
  EXPECT_TRUE(tools::ClearCloseOnExec(fd));
  EXPECT_EQ(::fcntl(fd, F_GETFD) & FD_CLOEXEC, 0);
  ::close(fd);
  EXPECT_FALSE(tools::SetCloseOnExec(fd));
  EXPECT_FALSE(tools::ClearCloseOnExec(-1));
}

std::string ReadAll(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return "<missing>";
  return {std::istreambuf_iterator<char>(in), {}};
}

TEST_F(FileSystemTest, WriteFileAtomicallyReplacesTheFile) {
  const std::string path = dir / "settings";
  testsupport::WriteFile(path, "old");
  testsupport::WriteFile(path + ".tmp", "leftover of a crash");
  ASSERT_EQ(tools::WriteFileAtomically(path, "new content"), 0);
  EXPECT_EQ(ReadAll(path), "new content");
  EXPECT_EQ(::access((path + ".tmp").c_str(), F_OK), -1);
  struct stat st {};
  ASSERT_EQ(::stat(path.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0444u);

  // Again over the read-only result, and with nothing to write.
  ASSERT_EQ(tools::WriteFileAtomically(path, ""), 0);
  EXPECT_EQ(ReadAll(path), "");

  EXPECT_EQ(tools::WriteFileAtomically(dir / "no/such/dir", "x"), zel::ResultFromErrno(ENOENT));
}

TEST_F(FileSystemTest, ExtendedAttributesOfFilesAndPaths) {
  const std::string path = dir / "attr";
  testsupport::WriteFile(path);
  if (::setxattr(path.c_str(), "user.vorn", "value\0bytes", 11, 0) != 0) {
    GTEST_SKIP() << "no user attributes here: " << std::strerror(errno);
  }
  std::string value;
  ASSERT_EQ(tools::GetPathXattr(path.c_str(), "user.vorn", value), 0);
  EXPECT_EQ(value, std::string("value\0bytes", 11));
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  ASSERT_GE(fd, 0);
  value.clear();
  EXPECT_EQ(tools::GetFileXattr(fd, "user.vorn", value), 0);
  EXPECT_EQ(value, std::string("value\0bytes", 11));
  EXPECT_EQ(tools::GetFileXattr(fd, "user.absent", value), zel::ResultFromErrno(ENODATA));
  ::close(fd);
  // A link is asked about itself, not its target.
  ASSERT_EQ(::symlink(path.c_str(), (dir / "link").c_str()), 0);
  EXPECT_LT(tools::GetPathXattr((dir / "link").c_str(), "user.vorn", value), 0);
}

}  // namespace
