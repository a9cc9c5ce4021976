// The product's application control settings as the administrator writes
// them: a list mode, a test switch and two rule lists that name categories
// and users. These records arrive from the host; ConvertSettings turns them
// into the engine's rules.
//
// Contract: fields stay in the order below (the host reads them through the
// type descriptors, StaticTypeDescriptor<T>::Get()). Enumerations are 32-bit
// signed numbers and may hold values outside the enumeration; readers must
// cope. Of AppControlSettings the conversion reads mode, enforcement and the
// two rule lists only; controlScripts, reportAllowedStarts and blockMessage
// are carried for the product's other readers.
#pragma once

#include <cstdint>

#include "tov_common/categories/category_types.h"
#include "tov_common/enums/enum_names.h"
#include "zel/serialization/type_descriptor.h"
#include "zel/types/string.h"
#include "zel/types/vector.h"

namespace tov::settings {

struct AppControlRuleUser {
  static constexpr std::uint32_t SerId = 0x5D3A8E21;

  // "\Everyone", "@group" or a user name.
  zel::wstring_t userName;
  tov::UserAccess access = tov::UserAccess::Allow;
};

struct AppControlRule {
  static constexpr std::uint32_t SerId = 0x6A0F43B7;

  zel::wstring_t ruleName;
  tov::RuleStatus status = tov::RuleStatus::On;
  // Matched by exact code units against the categories' names.
  zel::wstring_t categoryName;
  // Looked at only for a rule on the GoldenImage category.
  zel::types::vector_t<app_ctrl::CategoryId> categoryIds;
  zel::types::vector_t<AppControlRuleUser> users;
};

struct AppControlSettings {
  static constexpr std::uint32_t SerId = 0x471C26B1;

  tov::AppControlMode mode = tov::AppControlMode::DenyList;
  tov::AppControlEnforcement enforcement = tov::AppControlEnforcement::TestRules;
  // Whether script files handed to an interpreter are judged like programs.
  bool controlScripts = true;
  // Whether allowed starts are reported, not only blocked ones.
  bool reportAllowedStarts = false;
  zel::types::vector_t<AppControlRule> allowListRules;
  zel::types::vector_t<AppControlRule> denyListRules;
  // Shown to the user whose program was blocked; empty means the product's text.
  zel::wstring_t blockMessage;
};

}  // namespace tov::settings

namespace zel {
template <>
struct StaticTypeDescriptor<tov::settings::AppControlRuleUser> {
  static const TypeDescriptor* Get() noexcept;
};
template <>
struct StaticTypeDescriptor<tov::settings::AppControlRule> {
  static const TypeDescriptor* Get() noexcept;
};
template <>
struct StaticTypeDescriptor<tov::settings::AppControlSettings> {
  static const TypeDescriptor* Get() noexcept;
};
}  // namespace zel
