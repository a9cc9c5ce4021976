#include "host/files/path_matcher.h"

#include <string>
#include <utility>
#include <vector>

#include "host/files/internal/scope_rules.h"
#include "host/services/fault_switchboard.h"
#include "zel/rtl/error_handling/exceptions.h"

namespace host {

namespace {

using files::detail::ScopeRule;
using files::detail::ScopeRules;

class PathMatcher final : public HeapObject<PathMatcher, IPathMatcher> {
 public:
  zel::result_t Match(const tov::NativePath& path, std::uint32_t isDirectory) override {
    try {
      if (isDirectory > 1) return zel::result::InvalidArgument;
      const bool in = isDirectory == 1 ? m_rules.DirectoryInScope(path.view()) : m_rules.FileInScope(path.view());
      return in ? zel::result::NoError : zel::result::False;
    } catch (...) {
      return zel::ResultFromCurrentException(nullptr, nullptr);
    }
  }

 private:
  friend class host::HeapAccess;
  explicit PathMatcher(ScopeRules rules) : m_rules(std::move(rules)) {}
  ~PathMatcher() = default;

  const ScopeRules m_rules;
};

std::vector<std::string> Masks(const zel::types::vector_t<zel::string_t>& masks) {
  std::vector<std::string> out;
  out.reserve(masks.size());
  for (const zel::string_t& mask : masks) out.emplace_back(mask.view());
  return out;
}

template <class Scope>
zel::result_t ToRule(const Scope& scope, ScopeRule& rule) {
  if ((scope.matcherFlags & ~path_matcher_flags::kTopLevelOnly) != 0) return zel::result::InvalidArgument;
  // An empty path would hold every path: a scope without a path is a
  // mistake in the settings, not a wish to scan the whole machine.
  if (scope.path.empty()) return zel::result::InvalidArgument;
  rule.path.assign(scope.path.view());
  rule.masks = Masks(scope.masks);
  rule.shallow = (scope.matcherFlags & path_matcher_flags::kTopLevelOnly) != 0;
  return zel::result::NoError;
}

// The options' extra patterns are excludes that hold everywhere.
zel::result_t Finish(std::vector<ScopeRule> includes, std::vector<ScopeRule> excludes,
                     const PathMatcherOptions& options, IPathMatcher** out) {
  if ((options.flags & ~path_matcher_flags::kCaseInsensitive) != 0) return zel::result::InvalidArgument;
  if (!options.patterns.empty()) excludes.push_back(ScopeRule{{}, Masks(options.patterns), false});
  ScopeRules rules(std::move(includes), std::move(excludes),
                   (options.flags & path_matcher_flags::kCaseInsensitive) != 0);
  *out = MakeHeapObject<PathMatcher>(std::move(rules)).Detach();
  return zel::result::NoError;
}

}  // namespace

zel::result_t PathMatcherFactory::CreateMaskMatcher(const zel::types::vector_t<zel::string_t>& masks,
                                                    const PathMatcherOptions& options, IPathMatcher** out) {
  if (const zel::result_t fault = FaultAt(FaultPoint::PathMatcherCreate)) return fault;
  try {
    if (out == nullptr) return zel::result::InvalidArgument;
    *out = nullptr;
    if (const zel::result_t failure = m_failCreate.load(); failure != 0) return failure;
    // No masks at all would match everything; a mask matcher matches what
    // its masks name, so an empty list names nothing.
    std::vector<ScopeRule> includes;
    if (!masks.empty()) includes.push_back(ScopeRule{{}, Masks(masks), false});
    return Finish(std::move(includes), {}, options, out);
  } catch (...) {
    return zel::ResultFromCurrentException(nullptr, nullptr);
  }
}

zel::result_t PathMatcherFactory::CreateScopeMatcher(const tov::settings::ScanScope& scope,
                                                     const PathMatcherOptions& options, IPathMatcher** out) {
  if (const zel::result_t fault = FaultAt(FaultPoint::PathMatcherCreate)) return fault;
  try {
    if (out == nullptr) return zel::result::InvalidArgument;
    *out = nullptr;
    if (const zel::result_t failure = m_failCreate.load(); failure != 0) return failure;
    std::vector<ScopeRule> includes(1);
    if (const zel::result_t r = ToRule(scope, includes.front()); ZEL_FAILED(r)) return r;
    return Finish(std::move(includes), {}, options, out);
  } catch (...) {
    return zel::ResultFromCurrentException(nullptr, nullptr);
  }
}

zel::result_t PathMatcherFactory::CreatePathMatcher(const tov::settings::ScanScopeLists& scopes,
                                                    const PathMatcherOptions& options, IPathMatcher** out) {
  if (const zel::result_t fault = FaultAt(FaultPoint::PathMatcherCreate)) return fault;
  try {
    if (out == nullptr) return zel::result::InvalidArgument;
    *out = nullptr;
    if (const zel::result_t failure = m_failCreate.load(); failure != 0) return failure;
    std::vector<ScopeRule> includes;
    std::vector<ScopeRule> excludes;
    for (const tov::settings::ScanScope& scope : scopes.scanScopes) {
      if (!scope.enabled) continue;
      if (const zel::result_t r = ToRule(scope, includes.emplace_back()); ZEL_FAILED(r)) return r;
    }
    for (const tov::settings::SecondaryScope& scope : scopes.secondaryScopes) {
      if (const zel::result_t r = ToRule(scope, excludes.emplace_back()); ZEL_FAILED(r)) return r;
    }
    return Finish(std::move(includes), std::move(excludes), options, out);
  } catch (...) {
    return zel::ResultFromCurrentException(nullptr, nullptr);
  }
}

}  // namespace host
