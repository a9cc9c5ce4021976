// The JSON form of the application control settings that acctl reads:
//
//   { "mode": "AllowList" | "DenyList",
//     "enforcement": "TestRules" | "ApplyRules",
//     "controlScripts": true, "reportAllowedStarts": false,   (optional)
//     "blockMessage": "text",                                 (optional)
//     "allowListRules": [RULE...], "denyListRules": [RULE...] }  (optional)
//   RULE: { "ruleName": "...", "status": "On" | "Off" | "Test" (optional, On),
//           "categoryName": "...",
//           "users": [ { "userName": "\\Everyone" | "@group" | "name",
//                        "access": "Allow" | "Block" } ] }
//
// Reading is strict: an unknown key, a value of the wrong type or an unknown
// enumeration name is an error naming the key.
#pragma once

#include <string_view>

#include "tov_common/settings/app_control_settings.h"

namespace host::cli {

// UserError "<source>: <what>" for anything the form above doesn't allow.
tov::settings::AppControlSettings SettingsFromJson(std::string_view json, std::string_view source);

}  // namespace host::cli
