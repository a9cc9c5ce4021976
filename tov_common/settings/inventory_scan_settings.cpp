#include "tov_common/settings/inventory_scan_settings.h"

#include <cstddef>

#include "zel/serialization/field_types.h"
#include "zel/serialization/ser_obj_descriptor.h"

namespace tov::settings {

ScanScope DefaultScanScope() {
  ScanScope scope;
  scope.name = zel::wstring_t(u"All objects");
  scope.enabled = true;
  scope.path = zel::string_t("/usr/bin");
  scope.masks.push_back(zel::string_t("*"));
  scope.matcherFlags = 0;
  return scope;
}

namespace {

namespace ft = host::ser_type;
constexpr std::uint32_t kVector = zel::ser_field_flags::Vector;

using MaskList = zel::types::vector_t<zel::string_t>;

static_assert(sizeof(GoldenImageAction) == 4);

zel::SerObjDescriptorImpl<ScanScope> g_scopeHelper;
zel::SerObjDescriptorImpl<SecondaryScope> g_secondaryHelper;
zel::SerObjDescriptorImpl<InventoryScanSettings> g_settingsHelper;
zel::SerVectorHelperImpl<MaskList> g_maskListHelper;
zel::SerVectorHelperImpl<ScanScopeList> g_scopeListHelper;
zel::SerVectorHelperImpl<SecondaryScopeList> g_secondaryListHelper;

constinit zel::TypeDescriptorField g_scopeRows[] = {
    ft::Row(ft::WString, "name", offsetof(ScanScope, name), sizeof(zel::wstring_t)),
    ft::Row(ft::Bool, "enabled", offsetof(ScanScope, enabled), 1),
    ft::Row(ft::String, "path", offsetof(ScanScope, path), sizeof(zel::string_t)),
    ft::Row(ft::String, "masks", offsetof(ScanScope, masks), sizeof(MaskList), kVector, &g_maskListHelper),
    ft::Row(ft::UInt32, "matcherFlags", offsetof(ScanScope, matcherFlags), 4),
    zel::kFieldTableTerminator,
};

constinit zel::TypeDescriptorField g_secondaryRows[] = {
    ft::Row(ft::WString, "name", offsetof(SecondaryScope, name), sizeof(zel::wstring_t)),
    ft::Row(ft::String, "path", offsetof(SecondaryScope, path), sizeof(zel::string_t)),
    ft::Row(ft::String, "masks", offsetof(SecondaryScope, masks), sizeof(MaskList), kVector, &g_maskListHelper),
    ft::Row(ft::UInt32, "matcherFlags", offsetof(SecondaryScope, matcherFlags), 4),
    zel::kFieldTableTerminator,
};

constinit zel::TypeDescriptorField g_settingsRows[] = {
    ft::Row(ft::Bool, "firstFormatGroupEnabled", offsetof(InventoryScanSettings, firstFormatGroupEnabled), 1),
    ft::Row(ft::Bool, "secondFormatGroupEnabled", offsetof(InventoryScanSettings, secondFormatGroupEnabled), 1),
    ft::Row(ft::Bool, "executableBitEnabled", offsetof(InventoryScanSettings, executableBitEnabled), 1),
    ft::Row(ft::UInt32, "goldenImageAction", offsetof(InventoryScanSettings, goldenImageAction), 4),
    ft::Row(ft::Record, "scanScopes", offsetof(InventoryScanSettings, scanScopes), sizeof(ScanScopeList), kVector,
            &g_scopeListHelper, kScanScopeSerId),
    ft::Row(ft::Record, "secondaryScopes", offsetof(InventoryScanSettings, secondaryScopes), sizeof(SecondaryScopeList),
            kVector, &g_secondaryListHelper, kSecondaryScopeSerId),
    zel::kFieldTableTerminator,
};

constinit zel::TypeDescriptor g_scopeDescriptor{kScanScopeSerId, "ScanScope", sizeof(ScanScope), g_scopeRows,
                                                &g_scopeHelper};
constinit zel::TypeDescriptor g_secondaryDescriptor{kSecondaryScopeSerId, "SecondaryScope", sizeof(SecondaryScope),
                                                    g_secondaryRows, &g_secondaryHelper};
constinit zel::TypeDescriptor g_settingsDescriptor{InventoryScanSettings::SerId, "InventoryScanSettings",
                                                   sizeof(InventoryScanSettings), g_settingsRows, &g_settingsHelper};

}  // namespace
}  // namespace tov::settings

namespace zel {
const TypeDescriptor* StaticTypeDescriptor<tov::settings::ScanScope>::Get() noexcept {
  return &tov::settings::g_scopeDescriptor;
}
const TypeDescriptor* StaticTypeDescriptor<tov::settings::SecondaryScope>::Get() noexcept {
  return &tov::settings::g_secondaryDescriptor;
}
const TypeDescriptor* StaticTypeDescriptor<tov::settings::InventoryScanSettings>::Get() noexcept {
  return &tov::settings::g_settingsDescriptor;
}
}  // namespace zel
