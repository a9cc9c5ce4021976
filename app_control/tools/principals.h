// Principals of application control rules: telling what a rule's user name
// means (everyone, a user, a group), resolving it to an id through the host's
// user database, and testing whether one principal is covered by another.
// Nothing is cached but two system limits.
#pragma once

#include <cstdint>
#include <string_view>

#include "tov_common/settings/engine_principal.h"
#include "app_control/interfaces/ipwdb.h"
#include "zel/result.h"

namespace tov::app_control {

enum class PrincipalKind : std::uint32_t { Everyone = 0, User = 1, Group = 2 };

struct Principal {
  PrincipalKind kind = PrincipalKind::User;
  std::uint32_t id = 0;  // uid for User, gid for Group, meaningless for Everyone
};

// Exactly "\Everyone" is everyone, "@name" a group, any other text (also the
// empty one) a user. Compared by length and bytes: case matters.
PrincipalKind ClassifyPrincipal(std::string_view name) noexcept;

// Fills `principal` from `name`. Everyone leaves `principal.id` alone, so the
// caller presets it. A failed lookup is 0x8000004C whatever the database said.
zel::result_t ResolvePrincipal(IPwdb* pwdb, std::string_view name, Principal& principal);

// 0: `subject` is covered by `ruleSubject`; 1: it isn't; negative: failure.
// A user is covered by a group through its primary group or membership; a
// group only by the same group or by everyone.
zel::result_t IsPrincipalCovered(IPwdb* pwdb, Principal subject, Principal ruleSubject);

// The engine's form of a resolved principal.
app_ctrl::EnginePrincipal ToEnginePrincipal(const Principal& principal) noexcept;

}  // namespace tov::app_control
