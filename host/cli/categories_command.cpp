// acctl categories import FILE | export: the categories store as a document.
#include <cstdio>

#include "host/cli/category_document.h"
#include "host/cli/cli.h"
#include "host/cli/host_session.h"

namespace host::cli {

namespace {

constexpr const char* kCategoriesUsage =
    "usage: acctl [--db PATH] categories import FILE | categories export\n"
    "  import stores the categories of the JSON document FILE, replacing those\n"
    "  with the same GUID; export prints every stored category as one document.\n";

}  // namespace

int RunCategories(const GlobalOptions& options, const std::vector<std::string>& args) {
  if (args.size() == 1 && (args[0] == "--help" || args[0] == "-h")) {
    std::fputs(kCategoriesUsage, stdout);
    return 0;
  }
  const bool import = args.size() == 2 && args[0] == "import";
  if (!import && !(args.size() == 1 && args[0] == "export"))
    throw UsageError("categories: give import FILE or export");
  const std::string db = StorePath(options);
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
