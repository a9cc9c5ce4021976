#include "host/engine/file_facts.h"

#include <fcntl.h>
#include <openssl/evp.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
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

constexpr std::size_t kChunk = 64 * 1024;

// The SHA-256 implementation, fetched from the provider once: EVP_sha256()
// in a digest init makes OpenSSL look the algorithm up again on every file.
const EVP_MD* Sha256Algorithm() noexcept {
  static const EVP_MD* const algorithm = [] {
    const EVP_MD* fetched = EVP_MD_fetch(nullptr, "SHA256", nullptr);
    return fetched != nullptr ? fetched : EVP_sha256();
  }();
  return algorithm;
}

// A read buffer of kChunk bytes, left uninitialised: it is only written by
// the reads.
std::unique_ptr<unsigned char[]> ReadBuffer() { return std::make_unique_for_overwrite<unsigned char[]>(kChunk); }

// One SHA-256 computation; Final gives lower-case hex.
class Sha256 {
 public:
  Sha256() : m_ctx(EVP_MD_CTX_new()) {
    if (m_ctx && EVP_DigestInit_ex(m_ctx.get(), Sha256Algorithm(), nullptr) != 1) m_ctx.reset();
  }
  bool Ok() const noexcept { return m_ctx != nullptr; }
  bool Update(const void* data, std::size_t size) noexcept {
    return EVP_DigestUpdate(m_ctx.get(), data, size) == 1;
  }
  zel::result_t Final(std::string* hex) {
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    if (EVP_DigestFinal_ex(m_ctx.get(), digest, &length) != 1) return zel::result::Unexpected;
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

 private:
  std::unique_ptr<EVP_MD_CTX, MdCtxDeleter> m_ctx;
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
  return Sha256Descriptor(fd, hex);
}

zel::result_t Sha256Descriptor(int fd, std::string* hex) {
  Sha256 digest;
  if (!digest.Ok()) return zel::result::Unexpected;
  const std::unique_ptr<unsigned char[]> buffer = ReadBuffer();
  off_t offset = 0;
  for (;;) {
    const ssize_t n = ::pread(fd, buffer.get(), kChunk, offset);
    if (n < 0) {
      if (errno == EINTR) continue;
      return zel::ResultFromErrno(static_cast<unsigned>(errno));
    }
    if (n == 0) break;
    if (!digest.Update(buffer.get(), static_cast<std::size_t>(n))) return zel::result::Unexpected;
    offset += n;
  }
  return digest.Final(hex);
}

zel::result_t Sha256Stream(zel::IIO* io, std::string* hex) {
  if (io == nullptr) return zel::result::InvalidArgument;
  if (const zel::result_t r = io->Seek(zel::seek_origin::Begin, 0, nullptr); ZEL_FAILED(r)) return r;
  Sha256 digest;
  if (!digest.Ok()) return zel::result::Unexpected;
  const std::unique_ptr<unsigned char[]> buffer = ReadBuffer();
  for (;;) {
    std::uint32_t n = 0;
    if (const zel::result_t r = io->Read(buffer.get(), static_cast<std::uint32_t>(kChunk), &n); ZEL_FAILED(r))
      return r;
    if (n == 0) break;
    if (!digest.Update(buffer.get(), n)) return zel::result::Unexpected;
  }
  return digest.Final(hex);
}

std::uint64_t IdFromSha256(const std::string& sha256) {
  std::uint64_t id = 0;
  if (sha256.size() < 16) return 0;
  std::from_chars(sha256.data(), sha256.data() + 16, id, 16);
  return id;
}

std::uint64_t IdForFile(const std::string& sha256, const std::string& path) {
  // FNV-1a over the path, then one SplitMix64 round over id and path hash
  // together, so that ids of neighbouring paths share no bits.
  if (path.empty()) return IdFromSha256(sha256);
  std::uint64_t h = 0xcbf29ce484222325ull;
  for (const char c : path) h = (h ^ static_cast<unsigned char>(c)) * 0x100000001b3ull;
  std::uint64_t x = IdFromSha256(sha256) ^ (h + 0x9e3779b97f4a7c15ull);
  x = (x ^ (x >> 30)) * 0xbf58476d1ce4e5b9ull;
  x = (x ^ (x >> 27)) * 0x94d049bb133111ebull;
  return x ^ (x >> 31);
}

bool StampsTrustedOn(std::int64_t fsType) {
  switch (static_cast<std::uint32_t>(fsType)) {
    case 0x6969u:      // NFS
    case 0x517Bu:      // SMB
    case 0xFF534D42u:  // CIFS
    case 0xFE534D42u:  // SMB2
    case 0x65735546u:  // FUSE
    case 0x01021997u:  // 9P
    case 0x00C36400u:  // Ceph
    case 0x5346414Fu:  // AFS
    case 0x6B414653u:  // kAFS
    case 0x4D44u:      // FAT (msdos, vfat)
    case 0x2011BAB0u:  // exFAT
    case 0x5346544Eu:  // NTFS
    case 0x794C7630u:  // overlayfs
      return false;
    default:
      return true;
  }
}

bool IsDeviceRemovable(dev_t device, const std::string& sysRoot) {
  const std::string node =
      sysRoot + "/dev/block/" + std::to_string(major(device)) + ":" + std::to_string(minor(device));
  char resolved[PATH_MAX];
  if (::realpath(node.c_str(), resolved) == nullptr) return false;
  const std::string dir(resolved);
  // A partition has no flag of its own; its disk is the directory above it.
  if (::access((dir + "/removable").c_str(), R_OK) == 0) return ReadFlag(dir + "/removable");
  return ReadFlag(dir + "/../removable");
}

bool IsOnRemovableDrive(const std::string& path, const std::string& sysRoot) {
  struct stat st {};
  if (::stat(path.c_str(), &st) != 0) return false;
  return IsDeviceRemovable(st.st_dev, sysRoot);
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
