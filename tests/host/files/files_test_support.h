// Shared by the file service and engine tests: a scratch directory with
// files written into it, and opening through the host's file factory as the
// scan does.
#pragma once

#include <filesystem>
#include <fstream>
#include <string>
#include <string_view>

#include "host/files/file_factory.h"
#include "support/temp_tree.h"
#include "zel/rtl/objclient.h"
#include "zel/strings/conversions.h"

namespace files_test {

class ScratchDir : public testsupport::TempDir {
 public:
  // Makes the directories on the way.
  std::string Write(const std::string& name, std::string_view content) const {
    const std::string p = Path(name);
    std::filesystem::create_directories(std::filesystem::path(p).parent_path());
    std::ofstream(p, std::ios::binary).write(content.data(), static_cast<std::streamsize>(content.size()));
    return p;
  }
  std::string Path(const std::string& name) const { return *this / name; }
  const std::string& Path() const { return path(); }
};

// Opens `path` the way the inventory scan does: read, share read, open existing.
inline zel::result_t OpenForScan(zel::IFileFactory& factory, const std::string& path, zel::RefPtr<zel::IIO>& io) {
  const zel::wstring_t wide = zel::Utf8ToWide(path);
  return factory.CreateFile(wide.c_str(), zel::file_access::Read, zel::file_share::Read,
                            zel::file_disposition::OpenExisting, 0, io.Ref());
}

}  // namespace files_test
