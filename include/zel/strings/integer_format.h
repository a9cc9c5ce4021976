// zel::FormatSpec and the integer formatter: an integer appended to a wide
// or narrow string in a given base, width, fill and alignment.
//
// A negative value gets "-" in base 10 only; in any other base it is taken
// as unsigned. Digits are lower case. Padding goes before the prefix
// (align > 0), between prefix and digits (align == 0) or after the digits
// (align < 0), and is left out for a fill that does not fit the unit type.
#pragma once

#include <cstdint>
#include <type_traits>

#include "zel/types/string.h"

namespace zel {

struct FormatSpec {
  std::uint32_t width = 0;       // minimum number of units; 0 for none
  std::uint32_t base = 10;       // digits base, 2 to 36
  std::int32_t precision = -1;   // minimum number of digits; -1 for none
  std::int32_t align = 1;        // > 0 right, 0 internal, < 0 left
  std::uint32_t fill = ' ';      // ignored at 0x10000 and above
  bool showBase = false;         // "0x" for base 16, "0" for base 8
};

inline constexpr char kLowerDigits[] = "0123456789abcdefghijklmnopqrstuvwxyz";
inline constexpr char kUpperDigits[] = "0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZ";

void AppendInteger(wstring_t& out, std::int64_t value, const FormatSpec& format);
void AppendInteger(wstring_t& out, std::uint64_t value, const FormatSpec& format);
void AppendInteger(string_t& out, std::int64_t value, const FormatSpec& format);
void AppendInteger(string_t& out, std::uint64_t value, const FormatSpec& format);

// Smaller integer types go through the 64-bit forms of their signedness.
template <class String, class Int>
  requires std::is_integral_v<Int> && (!std::is_same_v<Int, bool>) &&
           (!std::is_same_v<Int, std::int64_t>) && (!std::is_same_v<Int, std::uint64_t>)
void AppendInteger(String& out, Int value, const FormatSpec& format) {
  // A negative value outside base 10 is unsigned at its own width.
  if constexpr (std::is_signed_v<Int>) {
    if (value < 0 && format.base != 10)
      AppendInteger(out, static_cast<std::uint64_t>(static_cast<std::make_unsigned_t<Int>>(value)), format);
    else
      AppendInteger(out, static_cast<std::int64_t>(value), format);
  } else
    AppendInteger(out, static_cast<std::uint64_t>(value), format);
}

}  // namespace zel
