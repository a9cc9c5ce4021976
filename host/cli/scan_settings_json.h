// The JSON form of the inventory scan settings that `acctl scan --settings`
// reads:
//
//   { "firstFormatGroupEnabled": true,      (optional, true)
//     "secondFormatGroupEnabled": true,     (optional, true)
//     "executableBitEnabled": true,         (optional, true)
//     "goldenImageAction": "None" | "Add" | "Remove",   (optional, None)
//     "scanScopes": [SCOPE...],             (optional; absent keeps /usr/bin)
//     "secondaryScopes": [SECONDARY...] }   (optional, none)
//   SCOPE:     { "path": "/usr/bin", "name": "text" (optional, the path),
//                "enabled": true (optional), "masks": ["*"] (optional, ["*"]),
//                "topLevelOnly": false (optional) }
//   SECONDARY: { "path": "/usr/bin/private", "name": "text" (optional),
//                "masks": ["*.bak"] (optional, none: the whole tree),
//                "topLevelOnly": false (optional) }
//
// Scan scopes are the roots of the walk; secondary scopes are left out of it.
// Reading is strict: an unknown key, a value of the wrong type, an empty path
// or an unknown action is an error naming the key.
#pragma once

#include <string_view>

#include "tov_common/settings/inventory_scan_settings.h"

namespace host::cli {

// UserError "<source>: <where>: <what>" for anything the form above doesn't allow.
tov::settings::InventoryScanSettings ScanSettingsFromJson(std::string_view json, std::string_view source);

// "None", "Add", "Remove" (exact case); false for anything else.
bool GoldenImageActionFromText(std::string_view text, tov::settings::GoldenImageAction& action);

}  // namespace host::cli
