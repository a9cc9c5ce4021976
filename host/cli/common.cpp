#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "host/cli/cli.h"

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

std::string DefaultStatePath() {
  const char* state = std::getenv("XDG_STATE_HOME");
  if (state != nullptr && *state == '/') return std::string(state) + "/acctl/acctl.db";
  const char* home = std::getenv("HOME");
  return std::string(home != nullptr && *home != '\0' ? home : "/tmp") + "/.local/state/acctl/acctl.db";
}

std::string StorePath(const GlobalOptions& options) {
  std::string db = options.dbPath;
  if (db.empty()) {
    db = DefaultStatePath();
    std::error_code ignored;
    std::filesystem::create_directories(std::filesystem::path(db).parent_path(), ignored);
  }
  return db;
}

}  // namespace host::cli
