// Shared by the file service tests: a scratch directory, opening through
// the host's file factory, and the descriptor count of the process.
#pragma once

#include <dirent.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <string_view>

#include "host/files/file_factory.h"
#include "zel/rtl/objclient.h"
#include "zel/strings/conversions.h"

namespace files_test {

class ScratchDir {
 public:
  ScratchDir() {
    std::string pattern = (std::filesystem::temp_directory_path() / "files_test.XXXXXX").string();
    if (::mkdtemp(pattern.data()) == nullptr) std::abort();
    m_path = pattern;
  }
  ~ScratchDir() {
    std::error_code ignored;
    std::filesystem::remove_all(m_path, ignored);
  }
  ScratchDir(const ScratchDir&) = delete;
  ScratchDir& operator=(const ScratchDir&) = delete;

  std::string Write(const std::string& name, std::string_view content) const {
    const std::string p = Path(name);
    std::ofstream(p, std::ios::binary).write(content.data(), static_cast<std::streamsize>(content.size()));
    return p;
  }
  std::string Path(const std::string& name) const { return m_path + "/" + name; }
  const std::string& Path() const { return m_path; }

 private:
  std::string m_path;
};

// Opens `path` the way the inventory scan does: read, share read, open existing.
inline zel::result_t OpenForScan(zel::IFileFactory& factory, const std::string& path, zel::RefPtr<zel::IIO>& io) {
  const zel::wstring_t wide = zel::Utf8ToWide(path);
  return factory.CreateFile(wide.c_str(), zel::file_access::Read, zel::file_share::Read,
                            zel::file_disposition::OpenExisting, 0, io.Ref());
}

inline int OpenDescriptors() {
  int count = 0;
  DIR* dir = ::opendir("/proc/self/fd");
  if (dir == nullptr) return -1;
  while (const dirent* entry = ::readdir(dir)) {
    if (entry->d_name[0] != '.') ++count;
  }
  ::closedir(dir);
  return count - 1;  // the directory's own descriptor
}

}  // namespace files_test
