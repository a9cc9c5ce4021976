#include "app_control/tools/convert_settings.h"

#include <climits>
#include <cstdint>
#include <cwchar>
#include <string>
#include <string_view>
#include <typeinfo>
#include <unordered_map>
#include <utility>

#include "app_control/interfaces/icategories_manager.h"
#include "app_control/interfaces/ipwdb.h"
#include "app_control/tools/principals.h"
#include "zel/itracer.h"
#include "zel/rtl/error_handling/checks.h"
#include "zel/rtl/objclient.h"

namespace tov::app_control {
namespace {

using tov::settings::AppControlRule;
using tov::settings::AppControlSettings;

// Narrow text in the current C locale, code point by code point, each with
// a fresh conversion state. A surrogate pair is one code point; a NUL unit is
// one NUL byte and stays. What the locale can't express raises std::bad_cast.
std::string NarrowUserName(std::u16string_view text) {
  std::string narrow;
  narrow.reserve(text.size());
  char bytes[MB_LEN_MAX];
  for (std::size_t i = 0; i < text.size(); ++i) {
    std::uint32_t codePoint = text[i];
    if (codePoint >= 0xD800 && codePoint <= 0xDBFF && i + 1 < text.size() && text[i + 1] >= 0xDC00 &&
        text[i + 1] <= 0xDFFF) {
      codePoint = 0x10000 + ((codePoint - 0xD800) << 10) + (static_cast<std::uint32_t>(text[i + 1]) - 0xDC00);
      ++i;
    }
    std::mbstate_t state{};
    const std::size_t written = std::wcrtomb(bytes, static_cast<wchar_t>(codePoint), &state);
    if (written == static_cast<std::size_t>(-1)) throw std::bad_cast();
    narrow.append(bytes, written);
  }
  return narrow;
}

// The engine numbers rule states differently: On and Off trade places.
std::uint32_t EngineStatus(tov::RuleStatus status) noexcept {
  switch (status) {
    case tov::RuleStatus::On:
      return app_ctrl::engine_rule_status::On;
    case tov::RuleStatus::Test:
      return app_ctrl::engine_rule_status::Test;
    case tov::RuleStatus::Off:
    default:
      return app_ctrl::engine_rule_status::Off;
  }
}

// Only an explicit Block blocks; anything else, unknown values too, allows.
std::uint32_t EngineAccess(tov::UserAccess access) noexcept {
  return access == tov::UserAccess::Block ? app_ctrl::engine_access::Block : app_ctrl::engine_access::Allow;
}

const zel::types::vector_t<AppControlRule>* SourceRules(const AppControlSettings& settings) noexcept {
  switch (settings.mode) {
    case tov::AppControlMode::AllowList:
      return &settings.allowListRules;
    case tov::AppControlMode::DenyList:
      return &settings.denyListRules;
    default:
      return nullptr;
  }
}

bool IsGoldenImageRule(const AppControlRule& rule) noexcept {
  return rule.categoryIds.size() == 1 && rule.categoryIds[0] == app_ctrl::GoldenImageCategoryId;
}

app_ctrl::EngineRule BuildEngineRule(IPwdb* pwdb, const AppControlRule& rule, const app_ctrl::CategoryId& categoryId) {
  app_ctrl::EngineRule engineRule;
  engineRule.status = EngineStatus(rule.status);
  engineRule.ruleName = rule.ruleName;
  engineRule.categoryId = categoryId;
  engineRule.users.reserve(rule.users.size());
  for (const tov::settings::AppControlRuleUser& user : rule.users) {
    const std::string name = NarrowUserName(user.userName.view());
    // Everyone leaves the id alone; the engine wants all ones there.
    Principal principal{PrincipalKind::User, app_ctrl::EnginePrincipal::kEveryoneId};
    if (ZEL_FAILED(ResolvePrincipal(pwdb, name, principal))) continue;
    app_ctrl::EngineRuleUser& engineUser = engineRule.users.emplace_back();
    engineUser.principals.reserve(1);
    engineUser.principals.push_back(ToEnginePrincipal(principal));
    engineUser.access = EngineAccess(user.access);
  }
  return engineRule;
}

}  // namespace

zel::result_t ConvertSettings(zel::IServiceLocator* sl, const AppControlSettings& settings, EngineRuleList& rules) {
  // Without a tracer the check lines are silent; nothing else changes.
  zel::RefPtr<zel::ITracer> tracer;
  zel::GetInterface(sl, tracer.Ref());

  zel::RefPtr<ICategoriesManager> categoriesManager;
  ZEL_CHECK_RESULT_LOG_RETURN(tracer.Get(), zel::GetInterface(sl, categoriesManager.Ref()),
                              "Cannot get ICategoriesManager interface");

  std::uint32_t modificationCounter = 0;
  ICategoriesManager::CategoryList customCategories;
  ZEL_CHECK_RESULT_LOG_RETURN(tracer.Get(),
                              categoriesManager->GetCategories(modificationCounter, customCategories),
                              "Cannot get categories");

  // Views into customCategories, which outlives the index; the first
  // category of a name wins, names compare by exact code units.
  std::unordered_map<std::u16string_view, const app_ctrl::CategoryId*> nameIndex;
  nameIndex.reserve(customCategories.size());
  for (const app_ctrl::Category& category : customCategories) nameIndex.try_emplace(category.Name.view(), &category.GUID);

  zel::RefPtr<IPwdb> pwdb;
  ZEL_CHECK_RESULT_LOG_RETURN(tracer.Get(), zel::GetInterface(sl, pwdb.Ref()), "Cannot get IPwdb interface");

  EngineRuleList converted;
  if (const zel::types::vector_t<AppControlRule>* source = SourceRules(settings)) {
    converted.reserve(source->size());
    for (const AppControlRule& rule : *source) {
      const app_ctrl::CategoryId* categoryId = nullptr;
      if (IsGoldenImageRule(rule)) {
        categoryId = &app_ctrl::GoldenImageCategoryId;
      } else {
        const auto found = nameIndex.find(rule.categoryName.view());
        if (found == nameIndex.end()) continue;  // a rule on an unknown category is dropped
        categoryId = found->second;
      }
      converted.push_back(BuildEngineRule(pwdb.Get(), rule, *categoryId));
    }
  }

  rules.swap(converted);
  return zel::result::NoError;
}

app_ctrl::EnterpriseApplicationControlSettings ComposeEngineSettings(const AppControlSettings& settings,
                                                                     EngineRuleList&& rules) {
  app_ctrl::EnterpriseApplicationControlSettings engineSettings;
  engineSettings.rules = std::move(rules);
  engineSettings.allowListMode = settings.mode == tov::AppControlMode::AllowList;
  engineSettings.testMode = settings.enforcement == tov::AppControlEnforcement::TestRules ? 1 : 0;
  return engineSettings;
}

}  // namespace tov::app_control
