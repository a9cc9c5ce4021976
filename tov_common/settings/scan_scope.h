// Scope records of the inventory scan settings: where the walk starts and
// which paths the host's path matcher lets through. The module reads only
// `enabled` and `path` of a ScanScope; the masks and the last value are the
// path matcher's business.
#pragma once

#include <cstdint>

#include "zel/types/string.h"
#include "zel/types/vector.h"

namespace tov::settings {

// One root of the walk and the masks that select files under it.
struct ScanScope {
  zel::wstring_t name;
  bool enabled = true;
  zel::string_t path;
  zel::types::vector_t<zel::string_t> masks;
  std::uint32_t matcherFlags = 0;  // read by the path matcher alone
};

// A scope handed to the path matcher beside the roots; never walked itself.
struct SecondaryScope {
  zel::wstring_t name;
  zel::string_t path;
  zel::types::vector_t<zel::string_t> masks;
  std::uint32_t matcherFlags = 0;  // read by the path matcher alone
};

using ScanScopeList = zel::types::vector_t<ScanScope>;
using SecondaryScopeList = zel::types::vector_t<SecondaryScope>;

// The two scope lists as they stand, one after the other, at the end of the
// scan settings; this is what the path matcher factory is given.
struct ScanScopeLists {
  ScanScopeList scanScopes;
  SecondaryScopeList secondaryScopes;
};

}  // namespace tov::settings
