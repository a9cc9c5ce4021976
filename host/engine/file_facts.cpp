#include "host/engine/file_facts.h"

#include <fcntl.h>
#include <openssl/evp.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <fstream>
#include <memory>

namespace host::engine {

namespace {

struct FdCloser {
  int fd;
  ~FdCloser() {
    if (fd >= 0) ::close(fd);
  }
};

struct MdCtxDeleter {
  void operator()(EVP_MD_CTX* ctx) const noexcept { EVP_MD_CTX_free(ctx); }
};

bool ReadFlag(const std::string& file) {
  std::ifstream in(file);
  int value = 0;
  return in && (in >> value) && value != 0;
}

}  // namespace

zel::result_t Sha256File(const std::string& path, std::string* hex) {
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return zel::ResultFromErrno(static_cast<unsigned>(errno));
  FdCloser closer{fd};

  std::unique_ptr<EVP_MD_CTX, MdCtxDeleter> ctx(EVP_MD_CTX_new());
  if (!ctx || EVP_DigestInit_ex(ctx.get(), EVP_sha256(), nullptr) != 1) return zel::result::Unexpected;
  unsigned char buffer[64 * 1024];
  for (;;) {
    const ssize_t n = ::read(fd, buffer, sizeof buffer);
    if (n < 0) {
      if (errno == EINTR) continue;
      return zel::ResultFromErrno(static_cast<unsigned>(errno));
    }
    if (n == 0) break;
    if (EVP_DigestUpdate(ctx.get(), buffer, static_cast<std::size_t>(n)) != 1) return zel::result::Unexpected;
  }
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  if (EVP_DigestFinal_ex(ctx.get(), digest, &length) != 1) return zel::result::Unexpected;

  static constexpr char kHex[] = "0123456789abcdef";
  std::string text;
  text.reserve(2 * length);
  for (unsigned i = 0; i < length; ++i) {
    text.push_back(kHex[digest[i] >> 4]);
    text.push_back(kHex[digest[i] & 0xF]);
  }
  *hex = std::move(text);
  return zel::result::NoError;
}

bool IsOnRemovableDrive(const std::string& path, const std::string& sysRoot) {
  struct stat st {};
  if (::stat(path.c_str(), &st) != 0) return false;
  const std::string node =
      sysRoot + "/dev/block/" + std::to_string(major(st.st_dev)) + ":" + std::to_string(minor(st.st_dev));
  char resolved[PATH_MAX];
  if (::realpath(node.c_str(), resolved) == nullptr) return false;
  const std::string device(resolved);
  // A partition has no flag of its own; its disk is the directory above it.
  if (::access((device + "/removable").c_str(), R_OK) == 0) return ReadFlag(device + "/removable");
  return ReadFlag(device + "/../removable");
}

FileFacts ComputeFileFacts(const std::string& path, const std::string& sysRoot) {
  FileFacts facts;
  facts.path = path;
  const std::size_t slash = path.rfind('/');
  facts.name = slash == std::string::npos ? path : path.substr(slash + 1);
  if (ZEL_FAILED(Sha256File(path, &facts.sha256))) facts.sha256.clear();
  facts.removable = IsOnRemovableDrive(path, sysRoot);
  return facts;
}

}  // namespace host::engine
