#include "tov_common/settings/app_control_settings.h"

#include <cstddef>

#include "tov_common/settings/internal/category_id_descriptor.h"
#include "zel/serialization/field_types.h"
#include "zel/serialization/ser_obj_descriptor.h"

namespace tov::settings {
namespace {

namespace ft = host::ser_type;
constexpr std::uint32_t kVector = zel::ser_field_flags::Vector;

using UserList = decltype(AppControlRule::users);
using IdList = decltype(AppControlRule::categoryIds);
using RuleList = decltype(AppControlSettings::allowListRules);

static_assert(sizeof(tov::UserAccess) == 4 && sizeof(tov::RuleStatus) == 4 && sizeof(tov::AppControlMode) == 4 &&
              sizeof(tov::AppControlEnforcement) == 4);

zel::SerObjDescriptorImpl<AppControlRuleUser> g_userHelper;
zel::SerObjDescriptorImpl<AppControlRule> g_ruleHelper;
zel::SerObjDescriptorImpl<AppControlSettings> g_settingsHelper;
zel::SerVectorHelperImpl<UserList> g_userListHelper;
detail::CategoryIdVectorHelper<IdList> g_idListHelper;
zel::SerVectorHelperImpl<RuleList> g_ruleListHelper;

constinit zel::TypeDescriptorField g_userRows[] = {
    ft::Row(ft::WString, "userName", offsetof(AppControlRuleUser, userName), sizeof(zel::wstring_t)),
    ft::Row(ft::Int32, "access", offsetof(AppControlRuleUser, access), 4),
    zel::kFieldTableTerminator,
};

constinit zel::TypeDescriptorField g_ruleRows[] = {
    ft::Row(ft::WString, "ruleName", offsetof(AppControlRule, ruleName), sizeof(zel::wstring_t)),
    ft::Row(ft::Int32, "status", offsetof(AppControlRule, status), 4),
    ft::Row(ft::WString, "categoryName", offsetof(AppControlRule, categoryName), sizeof(zel::wstring_t)),
    ft::Row(ft::Record, "categoryIds", offsetof(AppControlRule, categoryIds), sizeof(IdList), kVector, &g_idListHelper,
            detail::kCategoryIdSerId),
    ft::Row(ft::Record, "users", offsetof(AppControlRule, users), sizeof(UserList), kVector, &g_userListHelper,
            AppControlRuleUser::SerId),
    zel::kFieldTableTerminator,
};

constinit zel::TypeDescriptorField g_settingsRows[] = {
    ft::Row(ft::Int32, "mode", offsetof(AppControlSettings, mode), 4),
    ft::Row(ft::Int32, "enforcement", offsetof(AppControlSettings, enforcement), 4),
    ft::Row(ft::Bool, "controlScripts", offsetof(AppControlSettings, controlScripts), 1),
    ft::Row(ft::Bool, "reportAllowedStarts", offsetof(AppControlSettings, reportAllowedStarts), 1),
    ft::Row(ft::Record, "allowListRules", offsetof(AppControlSettings, allowListRules), sizeof(RuleList), kVector,
            &g_ruleListHelper, AppControlRule::SerId),
    ft::Row(ft::Record, "denyListRules", offsetof(AppControlSettings, denyListRules), sizeof(RuleList), kVector,
            &g_ruleListHelper, AppControlRule::SerId),
    ft::Row(ft::WString, "blockMessage", offsetof(AppControlSettings, blockMessage), sizeof(zel::wstring_t)),
    zel::kFieldTableTerminator,
};

constinit zel::TypeDescriptor g_userDescriptor{AppControlRuleUser::SerId, "AppControlRuleUser",
                                               sizeof(AppControlRuleUser), g_userRows, &g_userHelper};
constinit zel::TypeDescriptor g_ruleDescriptor{AppControlRule::SerId, "AppControlRule", sizeof(AppControlRule),
                                               g_ruleRows, &g_ruleHelper};
constinit zel::TypeDescriptor g_settingsDescriptor{AppControlSettings::SerId, "AppControlSettings",
                                                   sizeof(AppControlSettings), g_settingsRows, &g_settingsHelper};

}  // namespace
}  // namespace tov::settings

namespace zel {
const TypeDescriptor* StaticTypeDescriptor<tov::settings::AppControlRuleUser>::Get() noexcept {
  return &tov::settings::g_userDescriptor;
}
const TypeDescriptor* StaticTypeDescriptor<tov::settings::AppControlRule>::Get() noexcept {
  return &tov::settings::g_ruleDescriptor;
}
const TypeDescriptor* StaticTypeDescriptor<tov::settings::AppControlSettings>::Get() noexcept {
  return &tov::settings::g_settingsDescriptor;
}
}  // namespace zel
