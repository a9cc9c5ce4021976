// Categories documents in and out of the host's categories store, with the
// codec's faults turned into messages a user can act on.
#pragma once

#include <string>

#include "host/services/categories_manager.h"
#include "tov_common/categories/category_json.h"
#include "zel/iservice_locator.h"

namespace host::cli {

// The categories of a document. UserError for a document the codec refuses.
tov::tools::CategoryList ParseCategories(zel::IServiceLocator* objects, const std::string& json,
                                        const std::string& source);

// How many categories the store keeps of `list` (a GUID given twice is one).
std::size_t CountCategories(const tov::tools::CategoryList& list);

// Replaces the user categories of `store` with those of the document;
// returns how many the store took (a GUID given twice is one category, the
// later one). UserError for a document the codec refuses.
std::size_t ImportCategories(CategoriesManager& store, zel::IServiceLocator* objects, const std::string& json,
                             const std::string& source);

// The stored categories as a document.
std::string ExportCategories(CategoriesManager& store);

}  // namespace host::cli
