#include "tov_common/runtime_field.h"

#include <cstddef>

#include "zel/serialization/ser_obj_descriptor.h"

namespace tov {
namespace {

zel::SerObjDescriptorImpl<RuntimeField> g_runtimeFieldHelper;
zel::SerObjDescriptorImpl<AdditionalField> g_additionalFieldHelper;

// Each record keeps its own rows: they are completed in place at load.
zel::TypeDescriptorField g_runtimeFieldRows[] = {
    zel::MakeFieldRow("name", offsetof(RuntimeField, name)),
    zel::MakeFieldRow("data", offsetof(RuntimeField, data)),
    zel::kFieldTableTerminator,
};
zel::TypeDescriptorField g_additionalFieldRows[] = {
    zel::MakeFieldRow("name", offsetof(AdditionalField, name)),
    zel::MakeFieldRow("data", offsetof(AdditionalField, data)),
    zel::kFieldTableTerminator,
};

template <class Record>
constexpr zel::TypeDescriptorFieldFill kFieldFills[] = {
    {zel::ser_field_type::Int32, zel::ser_field_flags::None, sizeof(Record::name), nullptr},
    {zel::ser_field_type::Variant, zel::ser_field_flags::None, sizeof(Record::data), nullptr},
};

constinit zel::TypeDescriptor g_runtimeFieldDescriptor{RuntimeField::SerId, "RuntimeField", sizeof(RuntimeField),
                                                       g_runtimeFieldRows, &g_runtimeFieldHelper};
constinit zel::TypeDescriptor g_additionalFieldDescriptor{AdditionalField::SerId, "AdditionalField",
                                                          sizeof(AdditionalField), g_additionalFieldRows,
                                                          &g_additionalFieldHelper};

bool g_runtimeFieldRowsFilled = false;
bool g_additionalFieldRowsFilled = false;

// The one-time completion; also reached through Get(), so that a lookup
// made during another unit's static initialisation sees filled rows.
void EnsureFilled() noexcept {
  static const bool filled = [] {
    zel::FillTypeDescriptorFields(g_runtimeFieldRows, kFieldFills<RuntimeField>, g_runtimeFieldRowsFilled);
    zel::FillTypeDescriptorFields(g_additionalFieldRows, kFieldFills<AdditionalField>, g_additionalFieldRowsFilled);
    return true;
  }();
  static_cast<void>(filled);
}

[[maybe_unused]] const bool g_filledAtLoad = (EnsureFilled(), true);

}  // namespace
}  // namespace tov

namespace zel {
const TypeDescriptor* StaticTypeDescriptor<tov::RuntimeField>::Get() noexcept {
  tov::EnsureFilled();
  return &tov::g_runtimeFieldDescriptor;
}
const TypeDescriptor* StaticTypeDescriptor<tov::AdditionalField>::Get() noexcept {
  tov::EnsureFilled();
  return &tov::g_additionalFieldDescriptor;
}
}  // namespace zel
