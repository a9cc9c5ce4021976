#include "host/cli/settings_json.h"

#include <json/json.h>

#include <initializer_list>
#include <memory>
#include <span>
#include <string>

#include "host/cli/cli.h"
#include "host/cli/internal/json_document_reader.h"
#include "zel/strings/conversions.h"

namespace host::cli {
namespace {

class Reader : public internal::JsonDocumentReader {
 public:
  using JsonDocumentReader::JsonDocumentReader;

  template <class E>
  E Enum(const Json::Value& object, const std::string& where, const char* key, std::span<const tov::EnumName> names,
         bool required, E fallback) const {
    if (!required && !object.isMember(key)) return fallback;
    const std::string text = Text(object, where, key, true);
    std::string allowed;
    for (const tov::EnumName& n : names) {
      if (n.name == text) return static_cast<E>(n.value);
      allowed += (allowed.empty() ? "" : ", ") + std::string(n.name);
    }
    Fault(where + "." + key, "unknown value \"" + text + "\" (one of " + allowed + ")");
  }

  zel::types::vector_t<tov::settings::AppControlRule> Rules(const Json::Value& root, const char* key) const {
    zel::types::vector_t<tov::settings::AppControlRule> rules;
    if (!root.isMember(key)) return rules;
    const Json::Value& list = root[key];
    if (!list.isArray()) Fault(key, "expected an array");
    for (Json::ArrayIndex i = 0; i < list.size(); ++i) {
      const std::string where = std::string(key) + "[" + std::to_string(i) + "]";
      const Json::Value& v = list[i];
      OnlyKeys(v, where, {"ruleName", "status", "categoryName", "users"});
      auto& rule = rules.emplace_back();
      rule.ruleName = zel::Utf8ToWide(Text(v, where, "ruleName", true));
      rule.status = Enum(v, where, "status", tov::kRuleStatusNames, false, tov::RuleStatus::On);
      rule.categoryName = zel::Utf8ToWide(Text(v, where, "categoryName", true));
      if (!v.isMember("users") || !v["users"].isArray()) Fault(where + ".users", "expected an array");
      for (Json::ArrayIndex u = 0; u < v["users"].size(); ++u) {
        const std::string at = where + ".users[" + std::to_string(u) + "]";
        const Json::Value& user = v["users"][u];
        OnlyKeys(user, at, {"userName", "access"});
        auto& entry = rule.users.emplace_back();
        entry.userName = zel::Utf8ToWide(Text(user, at, "userName", true));
        entry.access = Enum(user, at, "access", tov::kUserAccessNames, true, tov::UserAccess::Block);
      }
    }
    return rules;
  }
};

}  // namespace

tov::settings::AppControlSettings SettingsFromJson(std::string_view json, std::string_view source) {
  const Reader reader(source);
  const Json::Value root = reader.Parse(json);
  reader.OnlyKeys(root, "document", {"mode", "enforcement", "controlScripts", "reportAllowedStarts", "blockMessage",
                                     "allowListRules", "denyListRules"});
  tov::settings::AppControlSettings settings;
  settings.mode = reader.Enum(root, "document", "mode", tov::kAppControlModeNames, true, tov::AppControlMode::DenyList);
  settings.enforcement = reader.Enum(root, "document", "enforcement", tov::kAppControlEnforcementNames, true,
                                     tov::AppControlEnforcement::TestRules);
  settings.controlScripts = reader.Flag(root, "document", "controlScripts", settings.controlScripts);
  settings.reportAllowedStarts = reader.Flag(root, "document", "reportAllowedStarts", settings.reportAllowedStarts);
  settings.blockMessage = zel::Utf8ToWide(reader.Text(root, "document", "blockMessage", false));
  settings.allowListRules = reader.Rules(root, "allowListRules");
  settings.denyListRules = reader.Rules(root, "denyListRules");
  return settings;
}

}  // namespace host::cli
