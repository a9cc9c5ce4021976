// The engine controller's stored service settings (key
// app_ctrl::CLSID_ENT_APP_CONTROLLER, settings type kControllerServiceSettingsId).
// The engine owns the record; other writers change only what they mean to
// and write the rest back as read. The defaults are those a reading buffer
// is prepared with.
#pragma once

#include <cstdint>

#include "tov_common/categories/category_types.h"
#include "zel/types/string.h"
#include "zel/types/vector.h"

namespace app_ctrl {

// Service key of the engine's application controller.
inline constexpr std::uint32_t CLSID_ENT_APP_CONTROLLER = 0x0A65F4BA;
inline constexpr std::uint32_t kControllerServiceSettingsId = 0x1F5958EE;

struct ControllerServiceSettings {
  zel::wstring_t reputationServiceUrl;
  bool useCloudReputation = true;  // ask the cloud reputation service about unknown programs
  zel::types::vector_t<Category> categories;
  bool reportUnknownModules = true;
  zel::wstring_t cacheDirectory;
  bool enforceAfterFailSafeBoot = true;
};

}  // namespace app_ctrl
