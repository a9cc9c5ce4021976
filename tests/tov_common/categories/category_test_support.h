// Test fixtures for the category code: a service locator that serves a
// counting allocator and the type descriptors of the five expression classes
// (the real host serves those from its own registry), plus record builders
// and a comparison of categories.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <utility>

#include "host/services/counting_allocator.h"
#include "host/services/service_locator.h"
#include "tov_common/categories/category_text.h"
#include "tov_common/categories/category_types.h"
#include "tests/tov_common/categories/category_meta_info.h"
#include "zel/util/anydescrptr.h"

namespace category_test {

// A locator with an allocator and the descriptors; tests remove either to
// drive the failure paths. Every expression made must go back: checked at
// the end of each test.
class CategoryEnv {
 public:
  CategoryEnv() {
    locator.Register<zel::IAllocator>(&allocator);
    locator.Register<zel::IMetaInfoProvider>(&metaInfo);
  }
  ~CategoryEnv() { EXPECT_EQ(allocator.LiveBlocks(), 0) << "an expression was not freed"; }

  zel::IServiceLocator* sl() { return &locator; }

  // An owning pointer to a copy of `value`, made as the host would.
  template <class T>
  zel::anydescrptr Own(const T& value) {
    zel::anydescrptr p;
    p.assign_copy(&value, Described<T>::Get(), &allocator);
    return p;
  }

  host::CountingAllocator allocator;
  MetaInfo metaInfo;
  host::ServiceLocator locator;
};

inline app_ctrl::CategoryId IdFromHex(const char* hex) {
  app_ctrl::CategoryId id{};
  EXPECT_TRUE(tov::tools::CategoryIdFromCompactText(hex, id)) << hex;
  return id;
}

// Criteria are equal when they print alike: the printed form names the label,
// the class, the field, the operation and the value (the criterion tests hold
// the printer to that).
inline bool SameCriteria(const zel::types::vector_t<app_ctrl::CategoryCriterion>& a,
                         const zel::types::vector_t<app_ctrl::CategoryCriterion>& b) {
  if (a.size() != b.size()) return false;
  for (std::size_t i = 0; i < a.size(); ++i) {
    if (tov::tools::CategoryCriterionToText(a[i]) != tov::tools::CategoryCriterionToText(b[i])) return false;
  }
  return true;
}

inline bool SameCategory(const app_ctrl::Category& a, const app_ctrl::Category& b) {
  return a.GUID == b.GUID && a.Name == b.Name && a.Description == b.Description && SameCriteria(a.Include, b.Include) &&
         SameCriteria(a.Exclude, b.Exclude);
}

}  // namespace category_test
