#include "tov_common/categories/category_descriptors.h"

#include "tov_common/categories/category_types.h"
#include "zel/serialization/ser_obj_descriptor.h"

namespace tov::tools {
namespace {

template <class T>
const zel::TypeDescriptor* Describe(const char* name) noexcept {
  static zel::SerObjDescriptorImpl<T> helper;
  static zel::TypeDescriptorField fields[] = {zel::kFieldTableTerminator};
  static const zel::TypeDescriptor descriptor{T::SerId, name, sizeof(T), fields, &helper};
  return &descriptor;
}

}  // namespace

std::span<const zel::TypeDescriptor* const> CategoryExpressionDescriptors() noexcept {
  static const zel::TypeDescriptor* const descriptors[] = {
      Describe<app_ctrl::CategoryFileInfoOperationExpression>("CategoryFileInfoOperationExpression"),
      Describe<app_ctrl::CategoryLinkedCategoryExpression>("CategoryLinkedCategoryExpression"),
      Describe<app_ctrl::CategoryStorageTypeExpression>("CategoryStorageTypeExpression"),
      Describe<app_ctrl::CategoryVersionOperationExpression>("CategoryVersionOperationExpression"),
      Describe<app_ctrl::CategoryAndExpression>("CategoryAndExpression"),
  };
  return descriptors;
}

const zel::TypeDescriptor* CategoryExpressionDescriptor(std::uint32_t serId) noexcept {
  for (const zel::TypeDescriptor* d : CategoryExpressionDescriptors())
    if (d->serId == serId) return d;
  return nullptr;
}

}  // namespace tov::tools
