// Settings conversion: the administrator's application control settings
// (list mode, test switch, rules naming a category and users) turned into the
// engine's rules (category ids, users resolved to numeric principals).
//
// Contract: a pure function of the settings, of the categories that the
// host's ICategoriesManager knows at the call and of the host's user
// database; no state between calls, no lock. A rule whose category is
// unknown and a user that does not resolve are dropped silently; only a
// missing service or a failed category read fails, with a check line at
// level 300. `rules` changes only on success, by one final swap.
#pragma once

#include "tov_common/settings/app_control_settings.h"
#include "tov_common/settings/enterprise_application_control_settings.h"
#include "zel/iservice_locator.h"
#include "zel/result.h"
#include "zel/types/vector.h"

namespace tov::app_control {

using EngineRuleList = zel::types::vector_t<app_ctrl::EngineRule>;

// Replaces `rules` with the engine form of the rule list that `settings.mode`
// selects (none for a mode outside the enumeration). Fails with the code of
// the first service that is missing or fails. Raises std::bad_cast for a user
// name the current locale can't narrow, and what the containers raise; then
// too `rules` is untouched.
zel::result_t ConvertSettings(zel::IServiceLocator* sl, const tov::settings::AppControlSettings& settings,
                              EngineRuleList& rules);

// The engine's settings record around converted `rules`: allowListMode when
// the mode is AllowList, testMode 1 when the enforcement is TestRules, every
// other field at the value the engine expects from this module.
app_ctrl::EnterpriseApplicationControlSettings ComposeEngineSettings(const tov::settings::AppControlSettings& settings,
                                                                     EngineRuleList&& rules);

}  // namespace tov::app_control
