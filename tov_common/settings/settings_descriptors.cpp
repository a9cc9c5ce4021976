#include "tov_common/settings/settings_descriptors.h"

#include "tov_common/settings/app_control_settings.h"
#include "tov_common/settings/enterprise_application_control_settings.h"
#include "tov_common/settings/internal/category_id_descriptor.h"
#include "tov_common/settings/inventory_scan_settings.h"

namespace tov::settings {

std::span<const zel::TypeDescriptor* const> SettingsRecordDescriptors() noexcept {
  static const zel::TypeDescriptor* const descriptors[] = {
      detail::CategoryIdDescriptor(),
      zel::StaticTypeDescriptor<AppControlRuleUser>::Get(),
      zel::StaticTypeDescriptor<AppControlRule>::Get(),
      zel::StaticTypeDescriptor<AppControlSettings>::Get(),
      zel::StaticTypeDescriptor<app_ctrl::EnginePrincipal>::Get(),
      zel::StaticTypeDescriptor<app_ctrl::EngineRuleUser>::Get(),
      zel::StaticTypeDescriptor<app_ctrl::EngineRule>::Get(),
      zel::StaticTypeDescriptor<app_ctrl::EnterpriseApplicationControlSettings>::Get(),
      zel::StaticTypeDescriptor<ScanScope>::Get(),
      zel::StaticTypeDescriptor<SecondaryScope>::Get(),
      zel::StaticTypeDescriptor<InventoryScanSettings>::Get(),
  };
  return descriptors;
}

}  // namespace tov::settings
