// The host's file factory on real files: what it opens, what it refuses and
// with which code, that it never waits on a FIFO, and that every descriptor
// it opens is closed again.
#include "host/files/file_factory.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <string>

#include "files_test_support.h"

namespace {

using testsupport::OpenDescriptorCount;
using files_test::OpenForScan;
using files_test::ScratchDir;

class FileFactoryTest : public ::testing::Test {
 protected:
  void SetUp() override { m_descriptors = OpenDescriptorCount(); }
  void TearDown() override { EXPECT_EQ(OpenDescriptorCount(), m_descriptors) << "a descriptor was left open"; }

  int Baseline() const { return m_descriptors; }

  host::FileFactory factory;
  ScratchDir dir;

 private:
  int m_descriptors = 0;
};

TEST_F(FileFactoryTest, RegularFileReadsSeeksAndSizes) {
  // A wide path reaches the file system as UTF-8.
  const std::string path = dir.Write("d\xC3\xBCr-\xE2\x82\xAC-\xF0\x9F\x98\x80.bin", "0123456789");
  zel::RefPtr<zel::IIO> io;
  ASSERT_EQ(OpenForScan(factory, path, io), zel::result::NoError);
  ASSERT_TRUE(io);
  EXPECT_EQ(OpenDescriptorCount(), Baseline() + 1);

  std::uint64_t size = 0;
  EXPECT_EQ(io->GetSize(&size), zel::result::NoError);
  EXPECT_EQ(size, 10u);

  char buffer[16] = {};
  std::uint32_t read = 0;
  ASSERT_EQ(io->Read(buffer, 4, &read), zel::result::NoError);
  EXPECT_EQ(std::string(buffer, read), "0123");
  std::uint64_t position = 0;
  EXPECT_EQ(io->Tell(&position), zel::result::NoError);
  EXPECT_EQ(position, 4u);

  EXPECT_EQ(io->Seek(zel::seek_origin::End, -3, &position), zel::result::NoError);
  EXPECT_EQ(position, 7u);
  ASSERT_EQ(io->Read(buffer, sizeof buffer, &read), zel::result::NoError);
  EXPECT_EQ(std::string(buffer, read), "789");  // a short count at the end
  ASSERT_EQ(io->Read(buffer, sizeof buffer, &read), zel::result::NoError);
  EXPECT_EQ(read, 0u);

  EXPECT_EQ(io->Seek(zel::seek_origin::Begin, 2, nullptr), zel::result::NoError);
  EXPECT_EQ(io->Seek(zel::seek_origin::Current, 3, &position), zel::result::NoError);
  EXPECT_EQ(position, 5u);
  EXPECT_EQ(io->Seek(zel::seek_origin::Begin, -1, &position), zel::result::InvalidArgument);
  EXPECT_EQ(io->Seek(7, 0, &position), zel::result::InvalidArgument);

  // Read-only: nothing is written, the file stays as it was.
  std::uint32_t written = 5;
  EXPECT_EQ(io->Write("x", 1, &written), zel::result::AccessDenied);
  EXPECT_EQ(written, 0u);
  EXPECT_EQ(io->SetSize(0), zel::result::AccessDenied);
  EXPECT_EQ(io->Flush(), zel::result::NoError);
  EXPECT_EQ(io->GetSize(&size), zel::result::NoError);
  EXPECT_EQ(size, 10u);

  io.Reset();
  EXPECT_EQ(OpenDescriptorCount(), Baseline());
}

TEST_F(FileFactoryTest, DescriptorIsBlockingAndCloseOnExec) {
  const std::string path = dir.Write("flags", "x");
  const int before = OpenDescriptorCount();
  zel::RefPtr<zel::IIO> io;
  ASSERT_EQ(OpenForScan(factory, path, io), zel::result::NoError);
  // The new descriptor is the lowest free one; find it by its target.
  int found = -1;
  for (int fd = 0; fd < 1024 && found < 0; ++fd) {
    char link[64], target[4096];
    std::snprintf(link, sizeof link, "/proc/self/fd/%d", fd);
    const ssize_t n = ::readlink(link, target, sizeof target - 1);
    if (n > 0 && std::string(target, static_cast<std::size_t>(n)) == path) found = fd;
  }
  ASSERT_GE(found, 0);
  EXPECT_EQ(OpenDescriptorCount(), before + 1);
  const int status = ::fcntl(found, F_GETFL);
  EXPECT_EQ(status & O_NONBLOCK, 0);
  EXPECT_EQ(status & O_ACCMODE, O_RDONLY);
  EXPECT_NE(::fcntl(found, F_GETFD) & FD_CLOEXEC, 0);
}

TEST_F(FileFactoryTest, RefusesWhatIsNotARegularFileWithoutBlocking) {
  const std::string fifo = dir.Path("fifo");
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
  // A blocking open of a FIFO waits for a writer: run it aside, and free it
  // by opening the other end should it ever wait.
  auto opened = std::async(std::launch::async, [&] {
    zel::RefPtr<zel::IIO> io;
    return OpenForScan(factory, fifo, io);
  });
  if (opened.wait_for(std::chrono::seconds(5)) != std::future_status::ready) {
    ADD_FAILURE() << "opening a FIFO blocked";
    const int writer = ::open(fifo.c_str(), O_WRONLY | O_NONBLOCK);
    if (writer >= 0) ::close(writer);
  }
  EXPECT_EQ(opened.get(), zel::result::InvalidType);

  const std::string socketPath = dir.Path("sock");
  const int sock = ::socket(AF_UNIX, SOCK_STREAM, 0);
  ASSERT_GE(sock, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strncpy(address.sun_path, socketPath.c_str(), sizeof address.sun_path - 1);
  ASSERT_EQ(::bind(sock, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);

  const std::string link = dir.Path("link");
  const std::string target = dir.Write("target", "data");
  ASSERT_EQ(::symlink(target.c_str(), link.c_str()), 0);

  const struct {
    const char* what;
    std::string path;
    zel::result_t expected;
  } cases[] = {
      {"character device", "/dev/null", zel::result::InvalidType},
      {"directory", dir.Path(), zel::result::InvalidType},
      {"socket (open itself fails with ENXIO)", socketPath, zel::ResultFromErrno(ENXIO)},
      {"symbolic link (O_NOFOLLOW)", link, zel::result::InvalidState},
      {"missing file", dir.Path("missing"), zel::result::NotFound},
      {"missing directory on the way", dir.Path("missing/file"), zel::result::NotFound},
      {"a file used as a directory", target + "/x", zel::result::PathNotFound},
  };
  for (const auto& c : cases) {
    zel::RefPtr<zel::IIO> io;
    EXPECT_EQ(OpenForScan(factory, c.path, io), c.expected) << c.what;
    EXPECT_FALSE(io) << c.what;
  }
  ::close(sock);
}

TEST_F(FileFactoryTest, ArgumentsOutsideTheReadOnlyOpenAreRefused) {
  const std::string path = dir.Write("file", "data");
  const zel::wstring_t wide = zel::Utf8ToWide(path);
  using namespace zel;
  const struct {
    const char* what;
    std::uint32_t access, share, disposition, flags;
    result_t expected;
  } cases[] = {
      {"the scan's values", file_access::Read, file_share::Read, file_disposition::OpenExisting, 0, result::NoError},
      {"any share mode", file_access::Read, file_share::Read | file_share::Write | file_share::Delete,
       file_disposition::OpenExisting, 0, result::NoError},
      {"write access", file_access::Read | file_access::Write, file_share::Read, file_disposition::OpenExisting, 0,
       result::NotSupported},
      {"create new", file_access::Read, file_share::Read, file_disposition::CreateNew, 0, result::NotSupported},
      {"no access", 0, file_share::Read, file_disposition::OpenExisting, 0, result::InvalidArgument},
      {"unknown access bit", 4, file_share::Read, file_disposition::OpenExisting, 0, result::InvalidArgument},
      {"unknown share bit", file_access::Read, 8, file_disposition::OpenExisting, 0, result::InvalidArgument},
      {"disposition 0", file_access::Read, file_share::Read, 0, 0, result::InvalidArgument},
      {"disposition 6", file_access::Read, file_share::Read, 6, 0, result::InvalidArgument},
      {"flags", file_access::Read, file_share::Read, file_disposition::OpenExisting, 0x80, result::InvalidArgument},
  };
  for (const auto& c : cases) {
    zel::RefPtr<zel::IIO> io;
    EXPECT_EQ(factory.CreateFile(wide.c_str(), c.access, c.share, c.disposition, c.flags, io.Ref()), c.expected)
        << c.what;
    EXPECT_EQ(static_cast<bool>(io), c.expected == result::NoError) << c.what;
  }

  zel::IIO* raw = reinterpret_cast<zel::IIO*>(0x1);
  EXPECT_EQ(factory.CreateFile(nullptr, file_access::Read, file_share::Read, file_disposition::OpenExisting, 0, &raw),
            result::InvalidArgument);
  EXPECT_EQ(raw, nullptr);
  EXPECT_EQ(factory.CreateFile(u"", file_access::Read, file_share::Read, file_disposition::OpenExisting, 0, &raw),
            result::InvalidArgument);
  EXPECT_EQ(factory.CreateFile(wide.c_str(), file_access::Read, file_share::Read, file_disposition::OpenExisting, 0,
                               nullptr),
            result::InvalidArgument);
}

}  // namespace
