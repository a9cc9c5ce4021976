// IPathMatcher: the host's answer to "is this path in the configured scope?".
// The inventory walk asks it for every directory it would enter, and the
// file matcher for every file it judges; one object serves both.
#pragma once

#include <cstdint>

#include "tov_common/native_path.h"
#include "zel/iobject.h"

class IPathMatcher : public zel::IObject {
 public:
  static constexpr zel::iid_t iid = 0x1E6B7D30;

  // `isDirectory` is 0 for a file, 1 for a directory. 0 means in scope;
  // anything else, failures included, means out of scope.
  virtual zel::result_t Match(const tov::NativePath& path, std::uint32_t isDirectory) = 0;

 protected:
  ~IPathMatcher() = default;
};
