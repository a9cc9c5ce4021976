// app_ctrl::EnginePrincipal: whom an engine rule concerns, as the engine
// numbers it. The engine's type numbering differs from the module's own
// PrincipalKind; tov::app_control::ToEnginePrincipal is the one bridge.
#pragma once

#include <cstdint>

namespace app_ctrl {

struct EnginePrincipal {
  static constexpr std::uint32_t kUser = 0;
  static constexpr std::uint32_t kGroup = 1;
  static constexpr std::uint32_t kEveryone = 2;
  static constexpr std::uint32_t kEveryoneId = 0xFFFFFFFFu;

  std::uint32_t principalType = kUser;
  std::uint32_t principalId = 0;
};
static_assert(sizeof(EnginePrincipal) == 8);

}  // namespace app_ctrl
