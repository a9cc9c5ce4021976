// IPathMatcherFactory: the host service that turns scope settings into an
// IPathMatcher. The mask syntax and how includes and secondary scopes
// combine belong to the host; the module only hands the lists over.
#pragma once

#include "app_control/interfaces/ipath_matcher.h"
#include "app_control/interfaces/path_matcher_options.h"
#include "tov_common/settings/scan_scope.h"
#include "zel/iobject.h"
#include "zel/types/string.h"
#include "zel/types/vector.h"

class IPathMatcherFactory : public zel::IObject {
 public:
  static constexpr zel::iid_t iid = 0x38514CF7;

  // A matcher over a plain list of masks, with no roots: a path is in scope
  // when any mask matches it.
  virtual zel::result_t CreateMaskMatcher(const zel::types::vector_t<zel::string_t>& masks,
                                          const PathMatcherOptions& options, IPathMatcher** out) = 0;
  // A matcher over one scope: a path is in scope when it lies at or below
  // the scope's path and one of its masks matches.
  virtual zel::result_t CreateScopeMatcher(const tov::settings::ScanScope& scope, const PathMatcherOptions& options,
                                           IPathMatcher** out) = 0;
  // A matcher over the scan settings' scopes. On success *out holds a
  // reference the caller owns; on failure it is left null.
  virtual zel::result_t CreatePathMatcher(const tov::settings::ScanScopeLists& scopes,
                                          const PathMatcherOptions& options, IPathMatcher** out) = 0;

 protected:
  ~IPathMatcherFactory() = default;
};
