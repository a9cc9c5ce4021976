// PathMatcherOptions: how a path matcher built by IPathMatcherFactory treats
// its masks. The inventory scan always passes the defaults (flags zero, no
// extra patterns); the fields exist for the host's other users.
#pragma once

#include <cstdint>

#include "zel/types/string.h"
#include "zel/types/vector.h"

struct PathMatcherOptions {
  std::uint32_t flags = 0;
  zel::types::vector_t<zel::string_t> patterns;
};
