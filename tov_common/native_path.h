// tov::NativePath: a path exactly as the file system gives it, bytes and all.
// It is treated as UTF-8 where it has to become text, but is never
// canonicalised, folded or validated on the way.
#pragma once

#include "zel/types/string.h"

namespace tov {

using NativePath = zel::string_t;

}  // namespace tov
