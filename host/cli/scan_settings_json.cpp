#include "host/cli/scan_settings_json.h"

#include <json/json.h>

#include <initializer_list>
#include <memory>
#include <string>

#include "host/cli/cli.h"
#include "host/cli/internal/json_document_reader.h"
#include "host/files/path_matcher.h"
#include "zel/strings/conversions.h"

namespace host::cli {
namespace {

using tov::settings::GoldenImageAction;

class Reader : public internal::JsonDocumentReader {
 public:
  using JsonDocumentReader::JsonDocumentReader;

  zel::types::vector_t<zel::string_t> Masks(const Json::Value& object, const std::string& where,
                                            bool defaultAll) const {
    zel::types::vector_t<zel::string_t> masks;
    if (!object.isMember("masks")) {
      if (defaultAll) masks.push_back(zel::string_t("*"));
      return masks;
    }
    const Json::Value& list = object["masks"];
    if (!list.isArray()) Fault(where + ".masks", "expected an array of strings");
    for (Json::ArrayIndex i = 0; i < list.size(); ++i) {
      const std::string at = where + ".masks[" + std::to_string(i) + "]";
      if (!list[i].isString() || list[i].asString().empty()) Fault(at, "expected a non-empty string");
      const std::string mask = list[i].asString();
      if (mask.find('\0') != std::string::npos) Fault(at, "a NUL character in a mask");
      masks.push_back(zel::string_t(mask.c_str()));
    }
    return masks;
  }

  // path, name (defaulting to the path), topLevelOnly.
  template <class Scope>
  void Common(const Json::Value& v, const std::string& where, Scope& scope) const {
    const std::string path = Text(v, where, "path", true);
    if (path.empty()) Fault(where + ".path", "expected a non-empty path");
    // The scope keeps a C string: a NUL would cut the path short unseen.
    if (path.find('\0') != std::string::npos) Fault(where + ".path", "a NUL character in a path");
    const std::string name = Text(v, where, "name", false);
    scope.path = zel::string_t(path.c_str());
    scope.name = zel::Utf8ToWide(name.empty() ? path : name);
    scope.matcherFlags = Flag(v, where, "topLevelOnly", false) ? host::path_matcher_flags::kTopLevelOnly : 0;
  }
};

}  // namespace

bool GoldenImageActionFromText(std::string_view text, GoldenImageAction& action) {
  if (text == "None") {
    action = GoldenImageAction::None;
  } else if (text == "Add") {
    action = GoldenImageAction::Add;
  } else if (text == "Remove") {
    action = GoldenImageAction::Remove;
  } else {
    return false;
  }
  return true;
}

tov::settings::InventoryScanSettings ScanSettingsFromJson(std::string_view json, std::string_view source) {
  const Reader reader(source);
  const Json::Value root = reader.Parse(json);
  reader.OnlyKeys(root, "document", {"firstFormatGroupEnabled", "secondFormatGroupEnabled", "executableBitEnabled",
                                     "goldenImageAction", "scanScopes", "secondaryScopes"});
  tov::settings::InventoryScanSettings settings;
  settings.firstFormatGroupEnabled = reader.Flag(root, "document", "firstFormatGroupEnabled", true);
  settings.secondFormatGroupEnabled = reader.Flag(root, "document", "secondFormatGroupEnabled", true);
  settings.executableBitEnabled = reader.Flag(root, "document", "executableBitEnabled", true);
  if (root.isMember("goldenImageAction")) {
    const std::string text = reader.Text(root, "document", "goldenImageAction", true);
    if (!GoldenImageActionFromText(text, settings.goldenImageAction))
      reader.Fault("document.goldenImageAction", "unknown value \"" + text + "\" (one of None, Add, Remove)");
  }
  if (root.isMember("scanScopes")) {
    const Json::Value& list = root["scanScopes"];
    if (!list.isArray()) reader.Fault("scanScopes", "expected an array");
    settings.scanScopes.clear();
    for (Json::ArrayIndex i = 0; i < list.size(); ++i) {
      const std::string where = "scanScopes[" + std::to_string(i) + "]";
      reader.OnlyKeys(list[i], where, {"path", "name", "enabled", "masks", "topLevelOnly"});
      tov::settings::ScanScope& scope = settings.scanScopes.emplace_back();
      reader.Common(list[i], where, scope);
      scope.enabled = reader.Flag(list[i], where, "enabled", true);
      scope.masks = reader.Masks(list[i], where, true);
    }
  }
  if (root.isMember("secondaryScopes")) {
    const Json::Value& list = root["secondaryScopes"];
    if (!list.isArray()) reader.Fault("secondaryScopes", "expected an array");
    for (Json::ArrayIndex i = 0; i < list.size(); ++i) {
      const std::string where = "secondaryScopes[" + std::to_string(i) + "]";
      reader.OnlyKeys(list[i], where, {"path", "name", "masks", "topLevelOnly"});
      tov::settings::SecondaryScope& scope = settings.secondaryScopes.emplace_back();
      reader.Common(list[i], where, scope);
      scope.masks = reader.Masks(list[i], where, false);
    }
  }
  return settings;
}

}  // namespace host::cli
