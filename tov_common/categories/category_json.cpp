#include "tov_common/categories/category_json.h"

#include <json/json.h>

#include <utility>

#include "tov_common/categories/category_text.h"
#include "tov_common/categories/internal/locale_text.h"

namespace tov::tools {

namespace msg = category_json_msg;

namespace {

// The string value under `key`; a missing key and a non-string value are
// told apart.
const Json::Value& RequiredString(const Json::Value& element, const char* key, std::size_t keyLength) {
  const Json::Value* value = element.find(key, key + keyLength);
  if (value == nullptr) throw JsonToCategoriesExceptionMsgMsgKey{msg::MissingKey, msg::String, std::string(key)};
  if (value->type() != Json::stringValue) {
    throw JsonToCategoriesExceptionMsgKeyMsg{msg::WrongType, std::string(key), msg::String};
  }
  return *value;
}

void ReadCriteria(zel::IServiceLocator* sl, const Json::Value& list, const std::string& key,
                  zel::types::vector_t<app_ctrl::CategoryCriterion>& criteria) {
  if (list.type() != Json::arrayValue) throw JsonToCategoriesExceptionMsgKeyMsg{msg::WrongType, key, msg::ListOfStrings};
  std::string label;
  std::vector<std::string> tokens;
  for (const Json::Value& item : list) {
    if (item.type() != Json::stringValue) {
      throw JsonToCategoriesExceptionMsgKeyMsg{msg::WrongType, key, msg::ListOfStrings};
    }
    std::string text = item.asString();
    if (!ParseCategoryCriterion(text, label, tokens)) {
      throw JsonToCategoriesExceptionMsgKey{msg::InvalidText, std::move(text)};
    }
    zel::anydescrptr expression = BuildCategoryExpression(sl, tokens);
    if (!expression.IsValid()) throw JsonToCategoriesExceptionMsgKey{msg::InvalidText, std::move(text)};
    app_ctrl::CategoryCriterion criterion;
    criterion.criterionName = detail::WidenOrThrow(label);
    criterion.expression = std::move(expression);
    criteria.push_back(std::move(criterion));
  }
}

app_ctrl::Category ReadCategory(zel::IServiceLocator* sl, const Json::Value& element) {
  static constexpr char kName[] = "Name";
  static constexpr char kGuid[] = "GUID";

  app_ctrl::Category category;
  category.Name = detail::WidenOrThrow(RequiredString(element, kName, sizeof kName - 1).asString());

  const std::string guid = RequiredString(element, kGuid, sizeof kGuid - 1).asString();
  if (!CategoryIdFromCompactText(guid, category.GUID)) throw JsonToCategoriesExceptionMsgKey{msg::InvalidText, guid};

  // Members come in the object's own (ascending) order, so which fault is
  // reported first follows the key order, not the document's.
  for (auto it = element.begin(); it != element.end(); ++it) {
    const std::string key = it.key().asString();
    if (key == kName || key == kGuid) continue;
    if (key == "Include") {
      ReadCriteria(sl, *it, key, category.Include);
    } else if (key == "Exclude") {
      ReadCriteria(sl, *it, key, category.Exclude);
    } else if (key == "Description") {
      if (it->type() != Json::stringValue) throw JsonToCategoriesExceptionMsgKeyMsg{msg::WrongType, key, msg::String};
      category.Description = detail::WidenOrThrow(it->asString());
    } else {
      throw JsonToCategoriesExceptionMsgKey{msg::UnknownKey, key};
    }
  }
  return category;
}

}  // namespace

CategoryList JsonToCategories(zel::IServiceLocator* sl, std::string_view json, std::string_view source) {
  Json::Value root;
  Json::Reader reader;
  bool parsed = false;
  try {
    parsed = reader.parse(json.data(), json.data() + json.size(), root, true);
  } catch (const Json::RuntimeError&) {
    // jsoncpp throws, instead of failing, on nesting deeper than its stack
    // limit; to the caller that is one more document that isn't one.
  }
  if (!parsed || !root.isArray()) {
    throw JsonToCategoriesExceptionMsgKey{msg::InvalidDocument, std::string(source)};
  }
  CategoryList categories;
  for (const Json::Value& element : root) categories.push_back(ReadCategory(sl, element));
  return categories;
}

std::string CategoriesToJson(const CategoryList& categories) {
  Json::Value root(Json::arrayValue);
  for (const app_ctrl::Category& category : categories) {
    Json::Value object(Json::objectValue);
    Json::Value include(Json::arrayValue);
    Json::Value exclude(Json::arrayValue);
    object["GUID"] = CategoryIdToCompactText(category.GUID);
    object["Name"] = detail::NarrowOrThrow(category.Name.view());
    if (!category.Description.empty()) object["Description"] = detail::NarrowOrThrow(category.Description.view());
    for (const app_ctrl::CategoryCriterion& criterion : category.Include) include.append(CategoryCriterionToText(criterion));
    for (const app_ctrl::CategoryCriterion& criterion : category.Exclude) exclude.append(CategoryCriterionToText(criterion));
    object["Include"] = std::move(include);
    object["Exclude"] = std::move(exclude);
    root.append(std::move(object));
  }
  const Json::StreamWriterBuilder builder;
  return Json::writeString(builder, root);
}

void FilterCategoriesByName(CategoryList& categories, const std::vector<std::string>& names) {
  if (names.empty()) return;
  // Decide for all first: a name that can't be narrowed throws before the
  // list has been touched.
  std::vector<bool> keep(categories.size());
  for (std::size_t i = 0; i < categories.size(); ++i) {
    const std::string name = detail::NarrowOrThrow(categories[i].Name.view());
    for (const std::string& wanted : names) {
      if (wanted == name) {
        keep[i] = true;
        break;
      }
    }
  }
  std::size_t kept = 0;
  for (std::size_t i = 0; i < categories.size(); ++i) {
    if (!keep[i]) continue;
    if (i != kept) categories[kept] = std::move(categories[i]);
    ++kept;
  }
  categories.erase(categories.begin() + kept, categories.end());
}

}  // namespace tov::tools
