// host::PathMatcherFactory: the reference host's IPathMatcherFactory. Scope
// settings become a ScopeRules decision (host/files/internal/scope_rules.h
// tells what a mask matches and how includes and excludes combine):
//
//   CreatePathMatcher   includes: the enabled ScanScopes; excludes: every
//                       SecondaryScope.
//   CreateScopeMatcher  the one scope as include, enabled or not: the caller
//                       picked it.
//   CreateMaskMatcher   one include that holds every path, with the masks.
//
// Options: flag kCaseInsensitive folds case in masks; `patterns` are extra
// exclude masks that hold everywhere. A scope's matcherFlags may carry
// kTopLevelOnly: the scope then holds its directory's own entries and no
// deeper ones. Unknown bits in either are refused as InvalidArgument, so a
// setting this host does not understand is not quietly widened.
//
// IPathMatcher::Match answers 0 in scope, 1 (False) out of scope, and
// InvalidArgument for an isDirectory other than 0 or 1.
#pragma once

#include <atomic>
#include <cstdint>

#include "app_control/interfaces/ipath_matcher_factory.h"
#include "host/services/host_object.h"

namespace host {

namespace path_matcher_flags {
inline constexpr std::uint32_t kCaseInsensitive = 0x1;  // PathMatcherOptions::flags
inline constexpr std::uint32_t kTopLevelOnly = 0x1;     // ScanScope / SecondaryScope::matcherFlags
}  // namespace path_matcher_flags

class PathMatcherFactory final : public OwnedObject<PathMatcherFactory, IPathMatcherFactory> {
 public:
  PathMatcherFactory() = default;
  PathMatcherFactory(const PathMatcherFactory&) = delete;
  PathMatcherFactory& operator=(const PathMatcherFactory&) = delete;

  zel::result_t CreateMaskMatcher(const zel::types::vector_t<zel::string_t>& masks, const PathMatcherOptions& options,
                                  IPathMatcher** out) override;
  zel::result_t CreateScopeMatcher(const tov::settings::ScanScope& scope, const PathMatcherOptions& options,
                                   IPathMatcher** out) override;
  zel::result_t CreatePathMatcher(const tov::settings::ScanScopeLists& scopes, const PathMatcherOptions& options,
                                  IPathMatcher** out) override;

  // Fault injection: while set (non-zero), every Create* fails with `code`.
  void FailCreate(zel::result_t code) noexcept { m_failCreate.store(code); }

 private:
  std::atomic<zel::result_t> m_failCreate{0};
};

}  // namespace host
