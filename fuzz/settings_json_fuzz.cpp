// Fuzzes acctl's settings document readers (host/cli/settings_json.h and
// scan_settings_json.h) on the same bytes: any byte string either reads into
// settings or is refused with a UserError; any other exception escapes and
// fails the run. What reads holds only the names and paths the form allows.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "host/cli/cli.h"
#include "host/cli/scan_settings_json.h"
#include "host/cli/settings_json.h"

namespace {

void Check(bool condition) {
  if (!condition) __builtin_trap();
}

template <class E, std::size_t N>
bool Named(E value, const tov::EnumName (&names)[N]) {
  for (const tov::EnumName& n : names)
    if (static_cast<E>(n.value) == value) return true;
  return false;
}

void ReadScanSettings(std::string_view json) {
  tov::settings::InventoryScanSettings settings;
  try {
    settings = host::cli::ScanSettingsFromJson(json, "fuzz");
  } catch (const host::cli::UserError& e) {
    Check(std::string_view(e.what()).starts_with("fuzz: "));
    return;
  }
  using Action = tov::settings::GoldenImageAction;
  Check(settings.goldenImageAction == Action::None || settings.goldenImageAction == Action::Add ||
        settings.goldenImageAction == Action::Remove);
  for (const auto& scope : settings.scanScopes) Check(!scope.path.empty());
  for (const auto& scope : settings.secondaryScopes) Check(!scope.path.empty());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view json(reinterpret_cast<const char*>(data), size);
  ReadScanSettings(json);
  tov::settings::AppControlSettings settings;
  try {
    settings = host::cli::SettingsFromJson(json, "fuzz");
  } catch (const host::cli::UserError& e) {
    Check(std::string_view(e.what()).starts_with("fuzz: "));
    return 0;
  }
  Check(Named(settings.mode, tov::kAppControlModeNames));
  Check(Named(settings.enforcement, tov::kAppControlEnforcementNames));
  for (const auto* rules : {&settings.allowListRules, &settings.denyListRules}) {
    for (const auto& rule : *rules) {
      Check(Named(rule.status, tov::kRuleStatusNames));
      for (const auto& user : rule.users) Check(Named(user.access, tov::kUserAccessNames));
    }
  }
  return 0;
}
