#include "host/services/cgroups_manager.h"

#include <fcntl.h>
#include <linux/magic.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <sstream>

#include "host/services/fault_switchboard.h"

namespace host {

namespace {

zel::result_t FromErrno(int e) {
  switch (e) {
    case EACCES:
    case EPERM:
    case EROFS: return zel::result::AccessDenied;
    case EOPNOTSUPP: return zel::result::NotSupported;
    case ESRCH: return zel::result::NotFound;
    default: return zel::ResultFromErrno(static_cast<unsigned>(e));
  }
}

// mountinfo escapes blanks, tabs, newlines and backslashes as \ooo.
std::string Unescape(const std::string& field) {
  std::string out;
  for (std::size_t i = 0; i < field.size(); ++i) {
    if (field[i] == '\\' && i + 3 < field.size()) {
      const std::string digits = field.substr(i + 1, 3);
      if (digits.size() == 3 && digits.find_first_not_of("01234567") == std::string::npos) {
        out.push_back(static_cast<char>(std::stoi(digits, nullptr, 8)));
        i += 3;
        continue;
      }
    }
    out.push_back(field[i]);
  }
  return out;
}

zel::result_t WriteText(const std::string& file, const std::string& text) {
  const int fd = ::open(file.c_str(), O_WRONLY | O_CLOEXEC);
  if (fd < 0) return FromErrno(errno);
  // cgroup files take one value per write(2) and report refusal there.
  ssize_t n;
  do {
    n = ::write(fd, text.data(), text.size());
  } while (n < 0 && errno == EINTR);
  const int e = errno;
  ::close(fd);
  if (n < 0) return FromErrno(e);
  return zel::result::NoError;
}

bool IsCgroup2(const std::string& dir) {
  struct statfs fs {};
  return ::statfs(dir.c_str(), &fs) == 0 && static_cast<unsigned long>(fs.f_type) == CGROUP2_SUPER_MAGIC;
}

}  // namespace

std::string CgroupsManager::FindCgroup2Mount(const std::string& mountinfoPath) {
  std::ifstream in(mountinfoPath);
  std::string line;
  while (std::getline(in, line)) {
    // id parent major:minor root mount-point options [optional...] - type source super-options
    std::istringstream fields(line);
    std::vector<std::string> f;
    for (std::string word; fields >> word;) f.push_back(word);
    std::size_t dash = 6;
    while (dash < f.size() && f[dash] != "-") ++dash;
    if (f.size() < 5 || dash + 1 >= f.size()) continue;
    if (f[dash + 1] == "cgroup2") return Unescape(f[4]);
  }
  return {};
}

CgroupsManager::CgroupsManager(std::string root, const std::string& procRoot)
    : m_root(root.empty() ? FindCgroup2Mount(procRoot + "/self/mountinfo") : std::move(root)) {}

std::vector<std::string> CgroupsManager::SplitName(const std::string& name) {
  std::vector<std::string> parts;
  std::size_t begin = name.starts_with('/') ? 1 : 0;  // below the root either way
  while (begin <= name.size()) {
    const std::size_t end = std::min(name.find('/', begin), name.size());
    const std::string part = name.substr(begin, end - begin);
    if (part.empty() || part == "." || part == "..") return {};
    parts.push_back(part);
    begin = end + 1;
  }
  return parts;
}

zel::result_t CgroupsManager::AddToCgroup(const zel::wstring_t&, const zel::string_t& cgroupName, std::int32_t tid) {
  if (const zel::result_t fault = FaultAt(FaultPoint::CgroupsAdd)) return fault;
  if (cgroupName.empty()) return zel::result::NoError;
  if (tid <= 0) return zel::result::InvalidArgument;
  try {
    const std::vector<std::string> parts = SplitName(std::string(cgroupName.view()));
    if (parts.empty()) return zel::result::InvalidArgument;
    if (m_root.empty() || !IsCgroup2(m_root)) return zel::result::NotSupported;

    std::lock_guard lock(m_mutex);
    std::string path = m_root;
    for (const std::string& part : parts) {
      path += "/" + part;
      if (::mkdir(path.c_str(), 0755) == 0) {
        // Threads of one process may only be spread over threaded groups of
        // the process's own domain; a new group is made one straight away.
        if (const zel::result_t r = WriteText(path + "/cgroup.type", "threaded"); ZEL_FAILED(r)) return r;
      } else if (errno != EEXIST) {
        return FromErrno(errno);
      }
    }
    return WriteText(path + "/cgroup.threads", std::to_string(tid));
  } catch (const std::bad_alloc&) {
    return zel::result::OutOfMemory;
  }
}

zel::result_t CgroupsManager::RemoveCgroup(const std::string& cgroupName) {
  std::vector<std::string> parts = SplitName(cgroupName);
  if (parts.empty()) return zel::result::InvalidArgument;
  if (m_root.empty()) return zel::result::NotSupported;
  std::string path = m_root;
  for (const std::string& part : parts) path += "/" + part;
  std::lock_guard lock(m_mutex);
  if (::rmdir(path.c_str()) != 0) return FromErrno(errno);
  return zel::result::NoError;
}

}  // namespace host
