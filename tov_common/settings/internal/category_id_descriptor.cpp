#include "tov_common/settings/internal/category_id_descriptor.h"

#include "zel/serialization/field_types.h"
#include "tov_common/categories/category_types.h"
#include "zel/serialization/ser_obj_descriptor.h"

namespace tov::settings::detail {
namespace {

namespace ft = host::ser_type;
using app_ctrl::CategoryId;

static_assert(sizeof(CategoryId) == 16);

zel::SerObjDescriptorImpl<CategoryId> g_helper;

constinit zel::TypeDescriptorField g_rows[] = {
    ft::Row(ft::UInt64, "low", 0, 8),
    ft::Row(ft::UInt64, "high", 8, 8),
    zel::kFieldTableTerminator,
};

constinit zel::TypeDescriptor g_descriptor{kCategoryIdSerId, "CategoryId", sizeof(CategoryId), g_rows, &g_helper};

}  // namespace

const zel::TypeDescriptor* CategoryIdDescriptor() noexcept { return &g_descriptor; }

}  // namespace tov::settings::detail
