// The reference engine's decision: given a file's facts, the user who starts
// it and the rules it was given, may the program run, and which rule said so.
//
// A rule counts when its status is not Off, its category is among those the
// file matches, and one of its users names one of the user's principals.
// Within a rule the most specific principal decides (the user himself, then
// one of his groups, then everyone); between entries of equal specificity a
// block wins. Across rules, a block wins. In allow-list mode a program that
// no rule allows is blocked; in deny-list mode one that no rule blocks runs.
//
// Verdicts: 1 allowed, 2 blocked. In test mode (the settings' testMode) the
// rules On and Test are evaluated and the verdict carries the sign bit with
// the would-be outcome; the program runs. Outside test mode the On rules
// decide; when they allow but the Test rules would block, the verdict is
// "blocked in test mode" (0x80000002) and the program runs.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "tov_common/settings/enterprise_application_control_settings.h"
#include "host/engine/category_matcher.h"
#include "host/engine/file_facts.h"

namespace host::engine {

struct UserPrincipals {
  std::uint32_t uid = 0;
  std::vector<std::uint32_t> gids;  // primary group first
  std::string userName;             // empty when the user is unknown
};

// Reads the user database for `uid`: name, primary group, supplementary
// groups. An unknown uid gives the uid alone.
UserPrincipals ResolveUserPrincipals(std::uint32_t uid);

struct Decision {
  std::int32_t verdict = 0;
  // Index of the rule that decided in the settings' list; -1 when no rule
  // concerned the program and the mode's default decided.
  std::int32_t ruleIndex = -1;
  app_ctrl::CategoryId categoryId{};
  zel::wstring_t categoryName;  // the decisive rule's category, by name
  std::vector<app_ctrl::CategoryId> matchedCategories;
};

Decision Decide(const app_ctrl::EnterpriseApplicationControlSettings& settings, const CategoryList& categories,
                const FileFacts& facts, const UserPrincipals& user);

}  // namespace host::engine
