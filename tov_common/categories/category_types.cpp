#include "tov_common/categories/category_types.h"

namespace app_ctrl {

namespace {

template <class T>
CategoryExpressionClone CloneOf(const T& self) {
  // The engine frees the copy through the deleting destructor, so it comes
  // from plain new.
  CategoryExpression* copy = new T(self);
  return CategoryExpressionClone{copy, T::SerId, 0};
}

}  // namespace

CategoryExpressionClone CategoryFileInfoOperationExpression::Clone() const { return CloneOf(*this); }
CategoryExpressionClone CategoryLinkedCategoryExpression::Clone() const { return CloneOf(*this); }
CategoryExpressionClone CategoryStorageTypeExpression::Clone() const { return CloneOf(*this); }

}  // namespace app_ctrl
