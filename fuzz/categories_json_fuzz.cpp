// Any byte string through the category document reader; what reads must
// write, and what it writes must read back to the same text.
#include <json/json.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>
#include <typeinfo>

#include "categories_services.h"
#include "tov_common/categories/category_json.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  zel::IServiceLocator* sl = fuzz::CategoryServices();
  const std::string_view json(reinterpret_cast<const char*>(data), size);
  tov::tools::CategoryList categories;
  try {
    categories = tov::tools::JsonToCategories(sl, json, "fuzz");
  } catch (const tov::tools::JsonToCategoriesExceptionMsgKey&) {
    return 0;
  } catch (const tov::tools::JsonToCategoriesExceptionMsgMsgKey&) {
    return 0;
  } catch (const tov::tools::JsonToCategoriesExceptionMsgKeyMsg&) {
    return 0;
  } catch (const Json::LogicError&) {
    return 0;
  } catch (const std::bad_cast&) {
    return 0;
  }
  // A document that read once is printable (the "C" locale widened it, so
  // it narrows back), and its printed form is stable from then on, unless a
  // criterion value held a blank, which prints but can't be read.
  const std::string written = tov::tools::CategoriesToJson(categories);
  try {
    const tov::tools::CategoryList again = tov::tools::JsonToCategories(sl, written, "written");
    if (tov::tools::CategoriesToJson(again) != written) std::abort();
  } catch (const tov::tools::JsonToCategoriesExceptionMsgKey& e) {
    if (e.message != 113) std::abort();
  }
  return 0;
}
