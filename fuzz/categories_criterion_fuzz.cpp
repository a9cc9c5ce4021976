// Any byte string as a criterion text: split it, make the expression, and
// check that an accepted criterion prints back to a text that reads to the
// same tokens (the printer's canonical form).
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>
#include <typeinfo>
#include <vector>

#include "categories_services.h"
#include "tov_common/categories/category_text.h"
#include "tov_common/categories/internal/locale_text.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  zel::IServiceLocator* sl = fuzz::CategoryServices();
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  std::string label;
  std::vector<std::string> tokens;
  if (!tov::tools::ParseCategoryCriterion(text, label, tokens)) return 0;
  for (const std::string& token : tokens) {
    if (token.empty() || token.find_first_of(" )") != std::string::npos) std::abort();
  }
  if (label.find('(') != std::string::npos) std::abort();

  app_ctrl::CategoryCriterion criterion;
  try {
    criterion.expression = tov::tools::BuildCategoryExpression(sl, tokens);
    if (!criterion.expression.IsValid()) return 0;
    criterion.criterionName = tov::tools::detail::WidenOrThrow(label);
  } catch (const std::bad_cast&) {
    return 0;
  }
  const std::string printed = tov::tools::CategoryCriterionToText(criterion);
  std::string label2;
  std::vector<std::string> tokens2;
  if (!tov::tools::ParseCategoryCriterion(printed, label2, tokens2)) std::abort();
  if (!tov::tools::BuildCategoryExpression(sl, tokens2).IsValid()) std::abort();
  if (tov::tools::CategoryCriterionToText(criterion) != printed) std::abort();
  // Only the id of a linked category is normalised (to lower case).
  if (label2 != label || tokens2.size() != tokens.size() || tokens2[0] != tokens[0]) std::abort();
  return 0;
}
