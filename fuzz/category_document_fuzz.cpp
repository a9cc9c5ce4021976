// Fuzzes acctl's categories document import (host/cli/category_document.h)
// into an in-memory categories store: any byte string is either stored or
// refused with a UserError, and what was stored exports to a document that
// imports again to the same export.
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "categories_services.h"
#include "host/cli/category_document.h"
#include "host/cli/cli.h"

namespace {

void Check(bool condition) {
  if (!condition) __builtin_trap();
}

host::CategoriesManager& Store() {
  static host::CategoriesManager* store = [] {
    auto* s = new host::CategoriesManager(fuzz::CategoryServices());  // lives to the end of the process
    Check(ZEL_SUCCEEDED(s->Open(":memory:")));
    return s;
  }();
  return *store;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  zel::IServiceLocator* sl = fuzz::CategoryServices();
  host::CategoriesManager& store = Store();
  const std::string json(reinterpret_cast<const char*>(data), size);
  std::size_t count;
  try {
    count = host::cli::ImportCategories(store, sl, json, "fuzz");
  } catch (const host::cli::UserError& e) {
    Check(std::string_view(e.what()).starts_with("fuzz: "));
    return 0;
  }
  const std::string written = host::cli::ExportCategories(store);
  try {
    Check(host::cli::ImportCategories(store, sl, written, "written") == count);
  } catch (const host::cli::UserError& e) {
    // A criterion value holding a blank prints but doesn't read back.
    Check(std::string_view(e.what()).find("message 113") != std::string_view::npos);
    return 0;
  }
  Check(host::cli::ExportCategories(store) == written);
  return 0;
}
