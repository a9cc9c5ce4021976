// Look-ups shared by the category printer and reader: operator texts to
// values, and the hex-digit checks of value tokens.
#pragma once

#include <cstdint>
#include <string_view>

namespace tov::tools::detail {

// Exact, case-sensitive look-up among the operator texts; each table is an
// ordered map built on first use.
bool FindStringOperation(std::string_view text, std::uint32_t& operation);
bool FindVersionOperation(std::string_view text, std::uint32_t& operation);

// True when every byte is a hex digit of either case (an empty text passes).
bool IsHexText(std::string_view text) noexcept;

}  // namespace tov::tools::detail
