// Evaluates category criteria against a file's facts. A category matches
// when one of its Include criteria matches and none of its Exclude criteria
// does. Criteria over facts the reference engine does not observe
// (certificates, versions, vendor data) never match.
//
// String operations: "==", "!=", "like" (a glob as fnmatch reads it, "*"
// crossing "/"), "contains", "startswith", "endswith", "regexp"
// (POSIX extended, whole text; an invalid pattern matches nothing). Paths and
// names compare case-sensitively, as the file system does; hashes compare
// without regard to case. A linked category matches when the category it
// names matches; a cycle of links matches nothing.
#pragma once

#include <vector>

#include "host/engine/file_facts.h"
#include "tov_common/categories/category_types.h"

namespace host::engine {

using CategoryList = zel::types::vector_t<app_ctrl::Category>;

// Whether one category matches; `all` resolves linked categories.
bool CategoryMatches(const app_ctrl::Category& category, const CategoryList& all, const FileFacts& facts);

// The ids of every category in `all` that matches, in list order.
std::vector<app_ctrl::CategoryId> MatchCategories(const CategoryList& all, const FileFacts& facts);

}  // namespace host::engine
