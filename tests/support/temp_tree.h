// Scratch directory trees for file-system tests: a temporary directory
// removed with everything below it (paths beyond PATH_MAX included), files
// and directories made relative to descriptors so that arbitrarily long
// paths can be built, and a count of this process's open descriptors.
#pragma once

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <stdexcept>
#include <string>
#include <string_view>

namespace testsupport {

class TempDir {
 public:
  TempDir() {
    std::string pattern = "/tmp/acfsXXXXXX";
    if (::mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
    m_path = pattern;
  }
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  // rm works relative to descriptors and so removes trees of any depth.
  ~TempDir() { (void)std::system(("rm -rf '" + m_path + "'").c_str()); }

  const std::string& path() const { return m_path; }
  std::string operator/(std::string_view name) const { return m_path + "/" + std::string(name); }

 private:
  std::string m_path;
};

inline void WriteFile(const std::string& path, std::string_view content = "x", mode_t mode = 0644) {
  const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, mode);
  if (fd < 0) throw std::runtime_error("cannot create " + path);
  const bool ok = ::write(fd, content.data(), content.size()) == static_cast<ssize_t>(content.size());
  ::fchmod(fd, mode);
  ::close(fd);
  if (!ok) throw std::runtime_error("cannot write " + path);
}

inline void MakeDir(const std::string& path, mode_t mode = 0755) {
  if (::mkdir(path.c_str(), mode) != 0) throw std::runtime_error("cannot mkdir " + path);
}

// Builds directories below `root`, each named by `component` bytes of
// `fill` (suffixed by its depth), until the path is at least `minLength`
// bytes; creates `leaf` as a file in the deepest one. Gives the full path of
// the deepest directory. Works through descriptors, so no call sees more
// than one component.
inline std::string MakeDeepChain(const std::string& root, std::size_t component, std::size_t minLength,
                                 const std::string& leaf = "leaf", char fill = 'd') {
  int fd = ::open(root.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) throw std::runtime_error("cannot open " + root);
  std::string path = root;
  for (int depth = 0; path.size() < minLength; ++depth) {
    std::string name(component, fill);
    name += std::to_string(depth);
    if (::mkdirat(fd, name.c_str(), 0755) != 0 && errno != EEXIST) {
      ::close(fd);
      throw std::runtime_error("cannot mkdirat");
    }
    const int next = ::openat(fd, name.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    ::close(fd);
    if (next < 0) throw std::runtime_error("cannot openat");
    fd = next;
    path += "/" + name;
  }
  if (!leaf.empty()) {
    const int f = ::openat(fd, leaf.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
    if (f >= 0) ::close(f);
  }
  ::close(fd);
  return path;
}

// Entries of /proc/self/fd, the reading descriptor itself not counted.
inline int OpenDescriptorCount() {
  DIR* dir = ::opendir("/proc/self/fd");
  if (dir == nullptr) return -1;
  int count = 0;
  while (dirent* e = ::readdir(dir)) {
    if (e->d_name[0] != '.') ++count;
  }
  ::closedir(dir);
  return count - 1;
}

}  // namespace testsupport
