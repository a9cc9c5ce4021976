// acctl categories import FILE | export: the categories store as a document.
#include <cstdio>

#include "host/cli/category_document.h"
#include "host/cli/cli.h"
#include "host/cli/host_session.h"

#include <filesystem>

namespace host::cli {

int RunCategories(const GlobalOptions& options, const std::vector<std::string>& args) {
  const bool import = args.size() == 2 && args[0] == "import";
  if (!import && !(args.size() == 1 && args[0] == "export"))
    throw UserError("usage: acctl [--db PATH] categories import FILE | categories export");
  std::string db = options.dbPath;
  if (db.empty()) {
    db = DefaultStatePath();
    std::error_code ignored;
    std::filesystem::create_directories(std::filesystem::path(db).parent_path(), ignored);
  }
  const std::string json = import ? ReadFile(args[1]) : std::string();
  HostSession session(options.traceLevel, db, nullptr);
  if (import) {
    const std::size_t n = ImportCategories(session.categories, &session.locator, json, args[1]);
    std::fprintf(stderr, "acctl: %zu categories stored in %s\n", n, db.c_str());
  } else {
    const std::string text = ExportCategories(session.categories);
    std::fwrite(text.data(), 1, text.size(), stdout);
    std::fputc('\n', stdout);
  }
  return 0;
}

}  // namespace host::cli
