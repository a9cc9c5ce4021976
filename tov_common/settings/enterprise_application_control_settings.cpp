#include "tov_common/settings/enterprise_application_control_settings.h"

#include <cstddef>

#include "tov_common/settings/internal/category_id_descriptor.h"
#include "zel/serialization/field_types.h"
#include "zel/serialization/ser_obj_descriptor.h"

namespace app_ctrl {
namespace {

namespace ft = host::ser_type;
constexpr std::uint32_t kVector = zel::ser_field_flags::Vector;
constexpr std::uint32_t kWideSize = sizeof(zel::wstring_t);

using PrincipalList = decltype(EngineRuleUser::principals);
using UserList = decltype(EngineRule::users);
using TextList = decltype(EngineRule::textList1);
using RuleList = decltype(EnterpriseApplicationControlSettings::rules);

zel::SerObjDescriptorImpl<EnginePrincipal> g_principalHelper;
zel::SerObjDescriptorImpl<EngineRuleUser> g_userHelper;
zel::SerObjDescriptorImpl<EngineRule> g_ruleHelper;
zel::SerObjDescriptorImpl<EnterpriseApplicationControlSettings> g_settingsHelper;
zel::SerVectorHelperImpl<PrincipalList> g_principalListHelper;
zel::SerVectorHelperImpl<UserList> g_userListHelper;
zel::SerVectorHelperImpl<TextList> g_textListHelper;
zel::SerVectorHelperImpl<RuleList> g_ruleListHelper;

constinit zel::TypeDescriptorField g_principalRows[] = {
    ft::Row(ft::UInt32, "principalType", offsetof(EnginePrincipal, principalType), 4),
    ft::Row(ft::UInt32, "principalId", offsetof(EnginePrincipal, principalId), 4),
    zel::kFieldTableTerminator,
};

constinit zel::TypeDescriptorField g_userRows[] = {
    ft::Row(ft::Record, "principals", offsetof(EngineRuleUser, principals), sizeof(PrincipalList), kVector,
            &g_principalListHelper, kEnginePrincipalSerId),
    ft::Row(ft::UInt32, "access", offsetof(EngineRuleUser, access), 4),
    zel::kFieldTableTerminator,
};

constinit zel::TypeDescriptorField g_ruleRows[] = {
    ft::RecordRow("categoryId", offsetof(EngineRule, categoryId), sizeof(CategoryId),
                  tov::settings::detail::kCategoryIdSerId),
    ft::Row(ft::WString, "ruleComment", offsetof(EngineRule, ruleComment), kWideSize),
    ft::Row(ft::WString, "ruleName", offsetof(EngineRule, ruleName), kWideSize),
    ft::Row(ft::UInt32, "status", offsetof(EngineRule, status), 4),
    ft::Row(ft::Record, "users", offsetof(EngineRule, users), sizeof(UserList), kVector, &g_userListHelper,
            EngineRuleUser::SerId),
    ft::Row(ft::Bool, "option1", offsetof(EngineRule, option1), 1),
    ft::Row(ft::Bool, "option2", offsetof(EngineRule, option2), 1),
    ft::Row(ft::WString, "textList1", offsetof(EngineRule, textList1), sizeof(TextList), kVector, &g_textListHelper),
    ft::Row(ft::WString, "textList2", offsetof(EngineRule, textList2), sizeof(TextList), kVector, &g_textListHelper),
    ft::Row(ft::Bool, "option3", offsetof(EngineRule, option3), 1),
    zel::kFieldTableTerminator,
};

using Eacs = EnterpriseApplicationControlSettings;
constinit zel::TypeDescriptorField g_settingsRows[] = {
    ft::Row(ft::Record, "rules", offsetof(Eacs, rules), sizeof(RuleList), kVector, &g_ruleListHelper,
            EngineRule::SerId),
    ft::Row(ft::Bool, "allowListMode", offsetof(Eacs, allowListMode), 1),
    ft::Row(ft::UInt32, "testMode", offsetof(Eacs, testMode), 4),
    ft::Row(ft::UInt32, "value3", offsetof(Eacs, value3), 4),
    ft::Row(ft::Bool, "flag4", offsetof(Eacs, flag4), 1),
    ft::Row(ft::Bool, "flag5", offsetof(Eacs, flag5), 1),
    ft::Row(ft::UInt32, "value6", offsetof(Eacs, value6), 4),
    ft::Row(ft::WString, "text7", offsetof(Eacs, text7), kWideSize),
    ft::Row(ft::UInt32, "value8", offsetof(Eacs, value8), 4),
    ft::Row(ft::Bool, "flag9", offsetof(Eacs, flag9), 1),
    ft::Row(ft::UInt32, "value10", offsetof(Eacs, value10), 4),
    ft::Row(ft::Bool, "flag11", offsetof(Eacs, flag11), 1),
    ft::Row(ft::Bool, "flag12", offsetof(Eacs, flag12), 1),
    ft::Row(ft::UInt32, "value13", offsetof(Eacs, value13), 4),
    ft::Row(ft::Bool, "flag14", offsetof(Eacs, flag14), 1),
    zel::kFieldTableTerminator,
};

constinit zel::TypeDescriptor g_principalDescriptor{kEnginePrincipalSerId, "EnginePrincipal", sizeof(EnginePrincipal),
                                                    g_principalRows, &g_principalHelper};
constinit zel::TypeDescriptor g_userDescriptor{EngineRuleUser::SerId, "EngineRuleUser", sizeof(EngineRuleUser),
                                               g_userRows, &g_userHelper};
constinit zel::TypeDescriptor g_ruleDescriptor{EngineRule::SerId, "EngineRule", sizeof(EngineRule), g_ruleRows,
                                               &g_ruleHelper};
constinit zel::TypeDescriptor g_settingsDescriptor{Eacs::SerId, "EnterpriseApplicationControlSettings", sizeof(Eacs),
                                                   g_settingsRows, &g_settingsHelper};

}  // namespace
}  // namespace app_ctrl

namespace zel {
const TypeDescriptor* StaticTypeDescriptor<app_ctrl::EnginePrincipal>::Get() noexcept {
  return &app_ctrl::g_principalDescriptor;
}
const TypeDescriptor* StaticTypeDescriptor<app_ctrl::EngineRuleUser>::Get() noexcept {
  return &app_ctrl::g_userDescriptor;
}
const TypeDescriptor* StaticTypeDescriptor<app_ctrl::EngineRule>::Get() noexcept {
  return &app_ctrl::g_ruleDescriptor;
}
const TypeDescriptor* StaticTypeDescriptor<app_ctrl::EnterpriseApplicationControlSettings>::Get() noexcept {
  return &app_ctrl::g_settingsDescriptor;
}
}  // namespace zel
