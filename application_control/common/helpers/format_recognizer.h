// Format ids as the host's format recogniser names them, and the priority
// in which they count when the recogniser reports several formats that all
// apply to one file. The meaning of an id is the recogniser's; this side only
// ranks and compares them.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

namespace app_ctrl::formats {

// The id of a file whose format nobody could name.
inline constexpr std::uint32_t kUnrecognized = 0xFFFFFFFF;

// Highest priority first.
inline constexpr std::array<std::uint32_t, 10> kPriority = {
    0xBB78EADE, 0x42A68202, 0x71C08127, 0xC22C8445, 0xD5E87558,
    0x87771839, 0x24A3462D, 0xE0242A0C, 0x721343EB, 0x4FFB30F3,
};

// Position of `id` among the first `limit` entries of the priority table, or
// `limit` when it is not there. Searching only above the best rank found so
// far is what keeps the earliest entry when walking a chain.
constexpr std::size_t PriorityRank(std::uint32_t id, std::size_t limit = kPriority.size()) noexcept {
  for (std::size_t i = 0; i < limit && i < kPriority.size(); ++i) {
    if (kPriority[i] == id) return i;
  }
  return limit;
}

}  // namespace app_ctrl::formats
