// Categories as a JSON document: an array of objects with the keys "GUID",
// "Name", "Description", "Include" and "Exclude". Reading is strict about
// keys and types and reports the first fault by one of three small exception
// classes carrying message numbers (their texts live outside this module)
// and the offending key or text. Reading never hands back a partial list.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "tov_common/categories/category_types.h"
#include "zel/iservice_locator.h"
#include "zel/types/vector.h"

namespace tov::tools {

// Message numbers carried by the exceptions below.
namespace category_json_msg {
inline constexpr std::uint32_t InvalidText = 113;     // bad GUID or criterion; carries the text
inline constexpr std::uint32_t InvalidDocument = 121;  // unparsable or not an array; carries the source
inline constexpr std::uint32_t UnknownKey = 319;
inline constexpr std::uint32_t WrongType = 321;
inline constexpr std::uint32_t MissingKey = 323;
inline constexpr std::uint32_t ListOfStrings = 386;
inline constexpr std::uint32_t String = 387;
}  // namespace category_json_msg

// Thrown by value; no base class.
struct JsonToCategoriesExceptionMsgKey {
  std::uint32_t message;
  std::string key;
};

struct JsonToCategoriesExceptionMsgMsgKey {
  std::uint32_t message;
  std::uint32_t secondMessage;
  std::string key;
};

struct JsonToCategoriesExceptionMsgKeyMsg {
  std::uint32_t message;
  std::string key;
  std::uint32_t secondMessage;
};

using CategoryList = zel::types::vector_t<app_ctrl::Category>;

// Reads the document. `sl` provides the expressions' allocator and type
// descriptors; `source` names the document in the document-level exception.
// Besides the three classes above: Json::LogicError for an element that is
// neither an object nor null, std::bad_cast for text the current locale
// can't widen, and what BuildCategoryExpression raises.
CategoryList JsonToCategories(zel::IServiceLocator* sl, std::string_view json, std::string_view source);

// Writes the document with jsoncpp's default writer settings (members in
// ascending key order, tab indentation). std::bad_cast for a name or
// description the current locale can't narrow.
std::string CategoriesToJson(const CategoryList& categories);

// Keeps the categories whose narrowed Name equals one of `names`, in order.
// An empty `names` keeps everything.
void FilterCategoriesByName(CategoryList& categories, const std::vector<std::string>& names);

}  // namespace tov::tools
