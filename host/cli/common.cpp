#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "host/cli/cli.h"
#include "host/cli/install_layout.h"

namespace host::cli {

int Fail(const char* step, zel::result_t r) {
  char text[zel::kMaxPrintedResult];
  const std::size_t n = zel::PrintResult(zel::FormatResult(r), text);
  std::fprintf(stderr, "acctl: %s failed: %.*s\n", step, static_cast<int>(n), text);
  return 1;
}

std::string ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) throw UserError("cannot read " + path);
  std::ostringstream text;
  text << in.rdbuf();
  if (in.bad()) throw UserError("cannot read " + path);
  return text.str();
}

std::string RecordTimeText(std::uint64_t timestamp) {
  if (timestamp == 0) return {};
  constexpr std::uint64_t kEpochDelta = 116444736000000000ull;  // 1601 to 1970
  const std::time_t seconds = static_cast<std::time_t>((timestamp - kEpochDelta) / 10000000ull);
  std::tm tm{};
  ::gmtime_r(&seconds, &tm);
  char text[32];
  std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &tm);
  return text;
}

std::string DefaultStatePath() {
  if (::geteuid() == 0) return kSystemStorePath;
  const char* state = std::getenv("XDG_STATE_HOME");
  if (state != nullptr && *state == '/') return std::string(state) + "/acctl/acctl.db";
  const char* home = std::getenv("HOME");
  return std::string(home != nullptr && *home != '\0' ? home : "/tmp") + "/.local/state/acctl/acctl.db";
}

void CheckStoreMode(const std::string& path) {
  struct stat st {};
  if (path == ":memory:" || ::stat(path.c_str(), &st) != 0) return;
  // Anyone who may write the store may write the rules and the inventory.
  if ((st.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
    char mode[8];
    std::snprintf(mode, sizeof mode, "%04o", static_cast<unsigned>(st.st_mode & 07777));
    throw UserError("refusing the store " + path + ": it is group- or world-writable (mode " + mode + ")");
  }
}

std::string StorePath(const GlobalOptions& options, bool create) {
  if (!options.dbPath.empty()) {
    CheckStoreMode(options.dbPath);
    return options.dbPath;
  }
  const std::string db = DefaultStatePath();
  const std::filesystem::path dir = std::filesystem::path(db).parent_path();
  if (create) {
    // The store's directory and file are the owner's alone: made so here,
    // before SQLite would make the file with the umask's mode.
    std::error_code ignored;
    std::filesystem::create_directories(dir.parent_path(), ignored);
    if (::mkdir(dir.c_str(), 0700) != 0 && errno != EEXIST)
      throw UserError("cannot make the store's directory " + dir.string() + ": " + std::strerror(errno));
    const int fd = ::open(db.c_str(), O_RDONLY | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
    if (fd < 0) throw UserError("cannot make the store " + db + ": " + std::strerror(errno));
    ::close(fd);
  }
  CheckStoreMode(dir.string());
  CheckStoreMode(db);
  return db;
}

}  // namespace host::cli
