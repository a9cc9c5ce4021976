#include "app_control/application_ids.h"

#include <cstddef>

#include "zel/serialization/ser_obj_descriptor.h"

namespace tov::app_control {
namespace {

using IdList = decltype(ApplicationIds::list);

zel::SerObjDescriptorImpl<ApplicationIds> g_applicationIdsHelper;
zel::SerVectorHelperImpl<IdList> g_idListHelper;

zel::TypeDescriptorField g_applicationIdsRows[] = {
    zel::MakeFieldRow("list", offsetof(ApplicationIds, list)),
    zel::kFieldTableTerminator,
};

const zel::TypeDescriptorFieldFill kApplicationIdsFills[] = {
    {zel::ser_field_type::UInt64, zel::ser_field_flags::Vector, sizeof(IdList), &g_idListHelper},
};

constinit zel::TypeDescriptor g_applicationIdsDescriptor{ApplicationIds::SerId, "ApplicationIds",
                                                         sizeof(ApplicationIds), g_applicationIdsRows,
                                                         &g_applicationIdsHelper};

bool g_applicationIdsRowsFilled = false;

void EnsureFilled() noexcept {
  static const bool filled =
      zel::FillTypeDescriptorFields(g_applicationIdsRows, kApplicationIdsFills, g_applicationIdsRowsFilled);
  static_cast<void>(filled);
}

[[maybe_unused]] const bool g_filledAtLoad = (EnsureFilled(), true);

}  // namespace
}  // namespace tov::app_control

namespace zel {
const TypeDescriptor* StaticTypeDescriptor<tov::app_control::ApplicationIds>::Get() noexcept {
  tov::app_control::EnsureFilled();
  return &tov::app_control::g_applicationIdsDescriptor;
}
}  // namespace zel
