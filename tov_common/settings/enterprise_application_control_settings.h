// The engine's side of application control settings: rules keyed by
// category id, with users already resolved to numeric principals, and the
// settings record that carries them. The records belong to the engine, which
// reads every field; the module fills them and must not reorder them.
//
// Fields whose meaning is the engine's own carry neutral names; their
// defaults below are exactly the values the module always sends, so a
// default-constructed EnterpriseApplicationControlSettings is what
// ApplySettings sends apart from rules, allowListMode and testMode.
#pragma once

#include <cstdint>

#include "tov_common/settings/engine_principal.h"
#include "tov_common/categories/category_types.h"
#include "zel/serialization/type_descriptor.h"
#include "zel/types/string.h"
#include "zel/types/vector.h"

namespace app_ctrl {

// Engine rule status numbers; not the product's RuleStatus numbering.
namespace engine_rule_status {
inline constexpr std::uint32_t Off = 0;
inline constexpr std::uint32_t On = 1;
inline constexpr std::uint32_t Test = 2;
}  // namespace engine_rule_status

namespace engine_access {
inline constexpr std::uint32_t Block = 0;
inline constexpr std::uint32_t Allow = 1;
}  // namespace engine_access

struct EngineRuleUser {
  static constexpr std::uint32_t SerId = 0x7B29F04D;

  zel::types::vector_t<EnginePrincipal> principals;
  std::uint32_t access = engine_access::Allow;
};

struct EngineRule {
  static constexpr std::uint32_t SerId = 0x14C7B2E6;

  CategoryId categoryId{};
  zel::wstring_t ruleComment;
  zel::wstring_t ruleName;
  std::uint32_t status = engine_rule_status::Off;
  zel::types::vector_t<EngineRuleUser> users;
  bool option1 = false;
  bool option2 = false;
  zel::types::vector_t<zel::wstring_t> textList1;
  zel::types::vector_t<zel::wstring_t> textList2;
  bool option3 = false;
};

struct EnterpriseApplicationControlSettings {
  static constexpr std::uint32_t SerId = 0x0A34F473;  // the engine task accepts its settings under this id

  zel::types::vector_t<EngineRule> rules;
  bool allowListMode = false;
  std::uint32_t testMode = 0;
  std::uint32_t value3 = 0;
  bool flag4 = true;
  bool flag5 = true;
  std::uint32_t value6 = 0;
  zel::wstring_t text7;
  std::uint32_t value8 = 0;
  bool flag9 = false;
  std::uint32_t value10 = 0;
  bool flag11 = true;
  bool flag12 = false;
  std::uint32_t value13 = 3;
  bool flag14 = false;
};

// The serialisation id this module gives the engine's principal record.
inline constexpr std::uint32_t kEnginePrincipalSerId = 0x0C5E6A93;

}  // namespace app_ctrl

namespace zel {
template <>
struct SerObjId<app_ctrl::EnginePrincipal> {
  static constexpr std::uint32_t value = app_ctrl::kEnginePrincipalSerId;
};
template <>
struct StaticTypeDescriptor<app_ctrl::EnginePrincipal> {
  static const TypeDescriptor* Get() noexcept;
};
template <>
struct StaticTypeDescriptor<app_ctrl::EngineRuleUser> {
  static const TypeDescriptor* Get() noexcept;
};
template <>
struct StaticTypeDescriptor<app_ctrl::EngineRule> {
  static const TypeDescriptor* Get() noexcept;
};
template <>
struct StaticTypeDescriptor<app_ctrl::EnterpriseApplicationControlSettings> {
  static const TypeDescriptor* Get() noexcept;
};
}  // namespace zel
