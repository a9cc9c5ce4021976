#include "host/engine/decision.h"

#include <grp.h>
#include <pwd.h>
#include <unistd.h>

#include <algorithm>

#include "app_control/interfaces/ienterprise_application_control_events2.h"

namespace host::engine {

namespace {

enum class Access { None, Allow, Block };

struct Outcome {
  std::int32_t verdict;  // 1 or 2
  std::int32_t ruleIndex;
};

// The access that `rule` grants `user`: the most specific matching entry,
// a block among equally specific ones.
Access RuleAccessFor(const app_ctrl::EngineRule& rule, const UserPrincipals& user) {
  int bestSpecificity = 0;
  Access best = Access::None;
  for (const app_ctrl::EngineRuleUser& entry : rule.users) {
    int specificity = 0;
    for (const app_ctrl::EnginePrincipal& p : entry.principals) {
      int s = 0;
      if (p.principalType == app_ctrl::EnginePrincipal::kUser && p.principalId == user.uid) {
        s = 3;
      } else if (p.principalType == app_ctrl::EnginePrincipal::kGroup &&
                 std::find(user.gids.begin(), user.gids.end(), p.principalId) != user.gids.end()) {
        s = 2;
      } else if (p.principalType == app_ctrl::EnginePrincipal::kEveryone) {
        s = 1;
      }
      specificity = std::max(specificity, s);
    }
    if (specificity == 0) continue;
    const Access a = entry.access == app_ctrl::engine_access::Block ? Access::Block : Access::Allow;
    if (specificity > bestSpecificity) {
      bestSpecificity = specificity;
      best = a;
    } else if (specificity == bestSpecificity && a == Access::Block) {
      best = Access::Block;
    }
  }
  return best;
}

Outcome Evaluate(const app_ctrl::EnterpriseApplicationControlSettings& settings,
                 const std::vector<app_ctrl::CategoryId>& matched, const UserPrincipals& user, bool withTestRules) {
  std::int32_t firstAllow = -1, firstBlock = -1;
  for (std::size_t i = 0; i < settings.rules.size(); ++i) {
    const app_ctrl::EngineRule& rule = settings.rules[i];
    const bool active = rule.status == app_ctrl::engine_rule_status::On ||
                        (withTestRules && rule.status == app_ctrl::engine_rule_status::Test);
    if (!active) continue;
    if (std::find(matched.begin(), matched.end(), rule.categoryId) == matched.end()) continue;
    const Access a = RuleAccessFor(rule, user);
    if (a == Access::Block && firstBlock < 0) firstBlock = static_cast<std::int32_t>(i);
    if (a == Access::Allow && firstAllow < 0) firstAllow = static_cast<std::int32_t>(i);
  }
  if (firstBlock >= 0) return {app_ctrl::verdict::Blocked, firstBlock};
  if (firstAllow >= 0) return {app_ctrl::verdict::Allowed, firstAllow};
  return {settings.allowListMode ? app_ctrl::verdict::Blocked : app_ctrl::verdict::Allowed, -1};
}

}  // namespace

UserPrincipals ResolveUserPrincipals(std::uint32_t uid) {
  UserPrincipals user;
  user.uid = uid;
  long size = ::sysconf(_SC_GETPW_R_SIZE_MAX);
  std::vector<char> buffer(size > 0 ? static_cast<std::size_t>(size) : 16384);
  passwd pw{};
  passwd* found = nullptr;
  while (::getpwuid_r(uid, &pw, buffer.data(), buffer.size(), &found) == ERANGE) buffer.resize(buffer.size() * 2);
  if (found == nullptr) return user;
  user.userName = pw.pw_name;
  int count = 16;
  std::vector<gid_t> groups(static_cast<std::size_t>(count));
  while (::getgrouplist(pw.pw_name, pw.pw_gid, groups.data(), &count) < 0) {
    groups.resize(static_cast<std::size_t>(count) + 16);
    count = static_cast<int>(groups.size());
  }
  user.gids.push_back(pw.pw_gid);
  for (int i = 0; i < count; ++i)
    if (groups[static_cast<std::size_t>(i)] != pw.pw_gid) user.gids.push_back(groups[static_cast<std::size_t>(i)]);
  return user;
}

Decision Decide(const app_ctrl::EnterpriseApplicationControlSettings& settings, const CategoryList& categories,
                const FileFacts& facts, const UserPrincipals& user) {
  Decision d;
  d.matchedCategories = MatchCategories(categories, facts);

  Outcome outcome{};
  if (settings.testMode != 0) {
    outcome = Evaluate(settings, d.matchedCategories, user, true);
    d.verdict = app_ctrl::verdict::TestModeFlag | outcome.verdict;
  } else {
    outcome = Evaluate(settings, d.matchedCategories, user, false);
    d.verdict = outcome.verdict;
    if (outcome.verdict == app_ctrl::verdict::Allowed) {
      const Outcome trial = Evaluate(settings, d.matchedCategories, user, true);
      if (trial.verdict == app_ctrl::verdict::Blocked) {
        outcome = trial;
        d.verdict = app_ctrl::verdict::BlockedInTestMode;
      }
    }
  }
  d.ruleIndex = outcome.ruleIndex;
  if (outcome.ruleIndex >= 0) {
    d.categoryId = settings.rules[static_cast<std::size_t>(outcome.ruleIndex)].categoryId;
    for (const app_ctrl::Category& c : categories) {
      if (c.GUID == d.categoryId) {
        d.categoryName = c.Name;
        break;
      }
    }
  }
  return d;
}

}  // namespace host::engine
