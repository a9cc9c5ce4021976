#include "host/engine/category_matcher.h"

#include <fnmatch.h>
#include <regex.h>

#include <algorithm>
#include <string>
#include <string_view>

#include "zel/strings/conversions.h"

namespace host::engine {

namespace {

using app_ctrl::CategoryFileInfoField;
using app_ctrl::CategoryStringOperation;

std::string Lower(std::string_view text) {
  std::string out(text);
  std::transform(out.begin(), out.end(), out.begin(),
                 [](char c) { return (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c; });
  return out;
}

// POSIX extended regular expression over the whole text; an invalid
// pattern matches nothing. The C library's matcher needs no exceptions and
// no recursion over the subject's length.
bool WholeTextMatches(const std::string& pattern, const std::string& subject) {
  const std::string anchored = "^(" + pattern + ")$";
  ::regex_t compiled;
  if (::regcomp(&compiled, anchored.c_str(), REG_EXTENDED | REG_NOSUB) != 0) return false;
  const bool matched = ::regexec(&compiled, subject.c_str(), 0, nullptr, 0) == 0;
  ::regfree(&compiled);
  return matched;
}

bool ApplyOperation(CategoryStringOperation op, const std::string& subject, const std::string& value) {
  switch (op) {
    case CategoryStringOperation::Equal: return subject == value;
    case CategoryStringOperation::NotEqual: return subject != value;
    case CategoryStringOperation::Like: return ::fnmatch(value.c_str(), subject.c_str(), 0) == 0;
    case CategoryStringOperation::Contains: return subject.find(value) != std::string::npos;
    case CategoryStringOperation::StartsWith: return subject.starts_with(value);
    case CategoryStringOperation::EndsWith: return subject.ends_with(value);
    case CategoryStringOperation::RegExp: return WholeTextMatches(value, subject);
  }
  return false;
}

class Evaluator {
 public:
  Evaluator(const CategoryList& all, const FileFacts& facts) : m_all(all), m_facts(facts) {}

  bool Category(const app_ctrl::Category& category) {
    // A category already being evaluated further up is a cycle.
    for (const app_ctrl::CategoryId& id : m_visiting)
      if (id == category.GUID) return false;
    m_visiting.push_back(category.GUID);
    bool included = false;
    for (const app_ctrl::CategoryCriterion& c : category.Include) {
      if (Expression(c.expression)) {
        included = true;
        break;
      }
    }
    bool excluded = false;
    if (included) {
      for (const app_ctrl::CategoryCriterion& c : category.Exclude) {
        if (Expression(c.expression)) {
          excluded = true;
          break;
        }
      }
    }
    m_visiting.pop_back();
    return included && !excluded;
  }

 private:
  bool Expression(const zel::anydescrptr& expression) {
    if (!expression.IsValid() || expression.descriptor() == nullptr) return false;
    switch (expression.descriptor()->serId) {
      case app_ctrl::category_class::FileInfoOperation:
        return FileInfo(*expression.get_as<app_ctrl::CategoryFileInfoOperationExpression>());
      case app_ctrl::category_class::LinkedCategory: {
        const auto& linked = *expression.get_as<app_ctrl::CategoryLinkedCategoryExpression>();
        for (const app_ctrl::Category& c : m_all)
          if (c.GUID == linked.category) return Category(c);
        return false;
      }
      case app_ctrl::category_class::StorageType:
        return expression.get_as<app_ctrl::CategoryStorageTypeExpression>()->storageType ==
                   app_ctrl::CategoryStorageTypeExpression::RemovableDrive &&
               m_facts.removable;
      case app_ctrl::category_class::And: {
        const auto& both = *expression.get_as<app_ctrl::CategoryAndExpression>();
        return Expression(both.left) && Expression(both.right);
      }
      default: return false;  // versions and anything newer: not observed here
    }
  }

  bool FileInfo(const app_ctrl::CategoryFileInfoOperationExpression& e) {
    const zel::string_t narrow = zel::Utf16ToUtf8(e.value.view());
    const std::string value(narrow.view());
    switch (e.field) {
      case CategoryFileInfoField::FileHash:
      case CategoryFileInfoField::FileSha256Hash:
        if (m_facts.sha256.empty()) return false;
        return ApplyOperation(e.operation, m_facts.sha256, Lower(value));
      case CategoryFileInfoField::FileName: return ApplyOperation(e.operation, m_facts.name, value);
      case CategoryFileInfoField::FilePath: return ApplyOperation(e.operation, m_facts.path, value);
      default: return false;
    }
  }

  const CategoryList& m_all;
  const FileFacts& m_facts;
  std::vector<app_ctrl::CategoryId> m_visiting;
};

}  // namespace

bool CategoryMatches(const app_ctrl::Category& category, const CategoryList& all, const FileFacts& facts) {
  return Evaluator(all, facts).Category(category);
}

std::vector<app_ctrl::CategoryId> MatchCategories(const CategoryList& all, const FileFacts& facts) {
  std::vector<app_ctrl::CategoryId> matched;
  for (const app_ctrl::Category& c : all)
    if (CategoryMatches(c, all, facts)) matched.push_back(c.GUID);
  return matched;
}

}  // namespace host::engine
