// The text forms of categories: a category id as canonical and compact hex,
// a criterion printed as "label (Field op value)", and the reader that turns
// such a text back into an expression. Printing and reading are deliberately
// not symmetric: some criteria print but can't be read (CommandLine,
// ServiceName, a value with a blank), and a version criterion is recognised
// but never accepted.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

#include "tov_common/categories/category_types.h"
#include "zel/iservice_locator.h"
#include "zel/types/string.h"
#include "zel/util/anydescrptr.h"

namespace tov::tools {

// 8-4-4-4-12 lower-case hex of the bytes in storage order (no swapping),
// e.g. "eac00500-0000-0000-0000-000000000000".
zel::wstring_t CategoryIdToText(const app_ctrl::CategoryId& id);
// The canonical text of the GoldenImage id, made once.
const zel::wstring_t& GoldenImageCategoryIdText();

// 32 lower-case hex digits, two a byte; the form of the JSON "GUID" and of
// the "Category" criterion.
std::string CategoryIdToCompactText(const app_ctrl::CategoryId& id);
// Reads exactly 32 hex digits of either case, pairwise, first digit high.
// Leaves `id` alone and gives false for anything else.
bool CategoryIdFromCompactText(std::string_view text, app_ctrl::CategoryId& id);

// Printed names; "Unknown" resp. "?" for values outside the enumeration.
const char* CategoryFileInfoFieldName(app_ctrl::CategoryFileInfoField field) noexcept;
const char* CategoryVersionFieldName(app_ctrl::CategoryVersionField field) noexcept;
const char* CategoryStringOperationText(app_ctrl::CategoryStringOperation operation) noexcept;
const char* CategoryVersionOperationText(app_ctrl::CategoryVersionOperation operation) noexcept;

// "(" + expression + ")", by the class id of the descriptor: nothing inside
// the brackets for an empty pointer or an unknown class. A text that the
// current locale can't narrow is written as nothing; the writer never fails
// on text.
std::ostream& CategoryExpressionToText(std::ostream& stream, const zel::anydescrptr& expression);
// The label (if any) and a blank, then the expression.
std::string CategoryCriterionToText(const app_ctrl::CategoryCriterion& criterion);

// Splits "label (tok tok tok)" by the byte grammar of the criterion text.
// Spaces inside the label are dropped ("My Label" reads as "MyLabel");
// tokens are separated by exactly one blank and can hold neither a blank nor
// ")". Gives false, and leaves the outputs alone, unless the whole text
// matched.
bool ParseCategoryCriterion(std::string_view text, std::string& name, std::vector<std::string>& tokens);

// How the value token of a file information criterion is checked.
enum class CategoryValueCheck : std::uint8_t {
  None,
  Md5OrSha256Hex,  // 32 or 64 hex digits
  Md5Hex,          // exactly 32 hex digits
  Sha256Hex,       // exactly 64 hex digits
};

struct CategoryFieldRow {
  std::uint32_t classId;
  std::uint32_t field;
  CategoryValueCheck check;
};

// First token of a criterion -> what it means. Built at load, read-only after.
// CommandLine and ServiceName are absent on purpose.
extern const std::map<std::string, CategoryFieldRow, std::less<>> CategoryFieldTable;

// Makes the expression the tokens describe, owned by the allocator of `sl`
// with the descriptor that `sl` serves for its class. Empty when the tokens
// make no expression. Raises zel::GetInterfaceException without an
// allocator, the descriptor lookup's exception for an unregistered class,
// std::bad_alloc for a failed copy and std::bad_cast for a value the locale
// can't widen.
zel::anydescrptr BuildCategoryExpression(zel::IServiceLocator* sl, const std::vector<std::string>& tokens);

}  // namespace tov::tools
