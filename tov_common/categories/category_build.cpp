// BuildCategoryExpression: tokens of a criterion to an owned expression.
#include <utility>

#include "tov_common/categories/category_text.h"
#include "tov_common/categories/internal/locale_text.h"
#include "tov_common/categories/internal/text_tables.h"
#include "zel/util/rtl_impl/anyptr_helpers.h"

namespace tov::tools {

namespace {

bool PassesCheck(CategoryValueCheck check, std::string_view value) {
  switch (check) {
    case CategoryValueCheck::None:
      return true;
    case CategoryValueCheck::Md5OrSha256Hex:
      return (value.size() == 32 || value.size() == 64) && detail::IsHexText(value);
    case CategoryValueCheck::Md5Hex:
      return value.size() == 32 && detail::IsHexText(value);
    case CategoryValueCheck::Sha256Hex:
      return value.size() == 64 && detail::IsHexText(value);
  }
  return false;
}

}  // namespace

zel::anydescrptr BuildCategoryExpression(zel::IServiceLocator* sl, const std::vector<std::string>& tokens) {
  if (tokens.empty()) return {};
  const auto row = CategoryFieldTable.find(tokens[0]);
  if (row == CategoryFieldTable.end()) return {};

  switch (row->second.classId) {
    case app_ctrl::category_class::StorageType: {
      if (tokens.size() != 1) return {};
      return zel::make_owning_anydescrptr(sl, app_ctrl::CategoryStorageTypeExpression(app_ctrl::CategoryStorageTypeExpression::RemovableDrive));
    }
    case app_ctrl::category_class::FileInfoOperation: {
      std::uint32_t operation = 0;
      if (tokens.size() != 3 || !detail::FindStringOperation(tokens[1], operation)) return {};
      if (!PassesCheck(row->second.check, tokens[2])) return {};
      const app_ctrl::CategoryFileInfoOperationExpression expression(
          static_cast<app_ctrl::CategoryFileInfoField>(row->second.field),
          static_cast<app_ctrl::CategoryStringOperation>(operation), detail::WidenOrThrow(tokens[2]));
      return zel::make_owning_anydescrptr(sl, expression);
    }
    case app_ctrl::category_class::LinkedCategory: {
      app_ctrl::CategoryId id{};
      if (tokens.size() != 2 || !CategoryIdFromCompactText(tokens[1], id)) return {};
      return zel::make_owning_anydescrptr(sl, app_ctrl::CategoryLinkedCategoryExpression(id));
    }
    case app_ctrl::category_class::VersionOperation: {
      // Recognised, looked at, and refused whatever the operator: versions
      // are not accepted from text.
      std::uint32_t operation = 0;
      if (tokens.size() == 3) static_cast<void>(detail::FindVersionOperation(tokens[1], operation));
      return {};
    }
    default:
      return {};
  }
}

}  // namespace tov::tools
