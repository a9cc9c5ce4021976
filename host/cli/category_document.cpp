#include "host/cli/category_document.h"

#include <json/json.h>

#include <set>
#include <typeinfo>

#include "host/cli/cli.h"
#include "tov_common/categories/category_json.h"

namespace host::cli {
namespace {

std::string MessageText(std::uint32_t message) {
  namespace msg = tov::tools::category_json_msg;
  const char* text = "?";
  switch (message) {
    case msg::InvalidText: text = "invalid text"; break;
    case msg::InvalidDocument: text = "not a categories document"; break;
    case msg::UnknownKey: text = "unknown key"; break;
    case msg::WrongType: text = "wrong type"; break;
    case msg::MissingKey: text = "missing key"; break;
    case msg::ListOfStrings: text = "a list of strings"; break;
    case msg::String: text = "a string"; break;
  }
  return "message " + std::to_string(message) + " (" + text + ")";
}

}  // namespace

tov::tools::CategoryList ParseCategories(zel::IServiceLocator* objects, const std::string& json,
                                        const std::string& source) {
  try {
    return tov::tools::JsonToCategories(objects, json, source);
  } catch (const tov::tools::JsonToCategoriesExceptionMsgKey& e) {
    throw UserError(source + ": " + MessageText(e.message) + ": " + e.key);
  } catch (const tov::tools::JsonToCategoriesExceptionMsgMsgKey& e) {
    throw UserError(source + ": " + MessageText(e.message) + ", " + MessageText(e.secondMessage) + ": " + e.key);
  } catch (const tov::tools::JsonToCategoriesExceptionMsgKeyMsg& e) {
    throw UserError(source + ": " + MessageText(e.message) + ": " + e.key + ", expected " +
                    MessageText(e.secondMessage));
  } catch (const Json::LogicError& e) {
    throw UserError(source + ": an element is neither an object nor null (" + e.what() + ")");
  } catch (const std::bad_cast&) {
    throw UserError(source + ": text the current locale can't read");
  }
}

std::size_t ImportCategories(CategoriesManager& store, zel::IServiceLocator* objects, const std::string& json,
                             const std::string& source) {
  const tov::tools::CategoryList list = ParseCategories(objects, json, source);
  const zel::result_t r = store.PutCategories({}, list, {}, tov::types::CategoriesAction::ReplaceUser);
  if (ZEL_FAILED(r)) {
    Fail("storing the categories", r);
    throw UserError(source + ": the categories store refused the document");
  }
  return CountCategories(list);
}

std::size_t CountCategories(const tov::tools::CategoryList& list) {
  // The store keys categories by GUID, so a GUID the document repeats ends
  // up stored once; the count says what the store now holds from it.
  std::set<app_ctrl::CategoryId> ids;
  for (const app_ctrl::Category& category : list) ids.insert(category.GUID);
  return ids.size();
}

std::string ExportCategories(CategoriesManager& store) {
  std::uint32_t counter = 0;
  tov::tools::CategoryList list;
  const zel::result_t r = store.GetCategories(counter, list);
  if (ZEL_FAILED(r)) {
    Fail("reading the categories", r);
    throw UserError("the categories store can't be read");
  }
  return tov::tools::CategoriesToJson(list);
}

}  // namespace host::cli
