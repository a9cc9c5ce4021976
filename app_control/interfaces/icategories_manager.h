// ICategoriesManager: the host's store of custom categories. The inventory
// scan publishes the GoldenImage category through it; the settings
// conversion reads every category to map rule category names to ids.
#pragma once

#include <cstdint>

#include "tov_common/categories/category_types.h"
#include "zel/iobject.h"
#include "zel/types/string.h"
#include "zel/types/vector.h"

namespace tov::types {

// Who changes the categories, and how. The Add* actions add or replace (by
// GUID) categories of that origin; ReplaceUser first drops every category of
// the administrator's own, ClearTaskManager every one the task manager added.
enum class CategoriesAction : std::uint32_t {
  AddUser = 0,
  ReplaceUser = 1,
  AddSecurityCenter = 2,
  AddInvScan = 3,
  AddTaskManager = 4,
  ClearTaskManager = 5,
};

}  // namespace tov::types

class ICategoriesManager : public zel::IObject {
 public:
  static constexpr zel::iid_t iid = 0x299DC02F;

  using CategoryList = zel::types::vector_t<app_ctrl::Category>;
  using CategoryIdList = zel::types::vector_t<app_ctrl::CategoryId>;
  using NameList = zel::types::vector_t<zel::wstring_t>;

  // Removes the categories of `action`'s origin whose GUID is in `removeIds`
  // or whose Name is in `removeNames`, then adds or replaces `categories`.
  // Either all of it takes effect or nothing does.
  virtual zel::result_t PutCategories(const CategoryIdList& removeIds, const CategoryList& categories,
                                      const NameList& removeNames, tov::types::CategoriesAction action) = 0;
  // Replaces `categories` with copies of all stored categories in their
  // order; `modificationCounter` grows with every change.
  virtual zel::result_t GetCategories(std::uint32_t& modificationCounter, CategoryList& categories) = 0;

 protected:
  ~ICategoriesManager() = default;
};
