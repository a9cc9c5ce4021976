// Categories documents in and out of the host's categories store, with the
// codec's faults turned into messages a user can act on.
#pragma once

#include <string>

#include "host/services/categories_manager.h"
#include "zel/iservice_locator.h"

namespace host::cli {

// Replaces the user categories of `store` with those of the document;
// returns how many the store took (a GUID given twice is one category, the
// later one). UserError for a document the codec refuses.
std::size_t ImportCategories(CategoriesManager& store, zel::IServiceLocator* objects, const std::string& json,
                             const std::string& source);

// The stored categories as a document.
std::string ExportCategories(CategoriesManager& store);

}  // namespace host::cli
