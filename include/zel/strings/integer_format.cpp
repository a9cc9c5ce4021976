#include "zel/strings/integer_format.h"

#include <cstddef>

namespace zel {

namespace {

// Prefix ("-", "0x", "0") plus digits, laid out in a local buffer first
// so that the string grows once.
template <class CharT>
void Format(basic_string_t<CharT>& out, std::uint64_t magnitude, bool negative, const FormatSpec& format) {
  std::uint32_t base = format.base;
  if (base < 2) base = 10;
  if (base > 36) base = 36;

  char prefix[3];
  std::size_t prefixLen = 0;
  if (negative) prefix[prefixLen++] = '-';
  if (format.showBase) {
    if (base == 16) {
      prefix[prefixLen++] = '0';
      prefix[prefixLen++] = 'x';
    } else if (base == 8) {
      prefix[prefixLen++] = '0';
    }
  }

  char digits[64];  // base 2 of a 64-bit value at most
  std::size_t digitLen = 0;
  do {
    digits[digitLen++] = kLowerDigits[magnitude % base];
    magnitude /= base;
  } while (magnitude != 0);
  const std::size_t minDigits = format.precision > 0 ? static_cast<std::size_t>(format.precision) : 0;
  const std::size_t zeros = minDigits > digitLen ? minDigits - digitLen : 0;

  const std::size_t body = prefixLen + zeros + digitLen;
  const bool canFill = format.fill < 0x10000 && (sizeof(CharT) > 1 || format.fill < 0x100);
  const std::size_t pad = canFill && format.width > body ? format.width - body : 0;
  const auto fill = static_cast<CharT>(format.fill);

  out.reserve(out.size() + body + pad);
  if (format.align > 0) out.append(pad, fill);
  for (std::size_t i = 0; i < prefixLen; ++i) out.push_back(static_cast<CharT>(prefix[i]));
  if (format.align == 0) out.append(pad, fill);
  out.append(zeros, CharT('0'));
  while (digitLen != 0) out.push_back(static_cast<CharT>(digits[--digitLen]));
  if (format.align < 0) out.append(pad, fill);
}

template <class CharT>
void FormatSigned(basic_string_t<CharT>& out, std::int64_t value, const FormatSpec& format) {
  if (value < 0 && format.base == 10) {
    // Negated as unsigned so that the smallest value survives.
    Format(out, 0 - static_cast<std::uint64_t>(value), true, format);
  } else {
    Format(out, static_cast<std::uint64_t>(value), false, format);
  }
}

}  // namespace

void AppendInteger(wstring_t& out, std::int64_t value, const FormatSpec& format) { FormatSigned(out, value, format); }
void AppendInteger(wstring_t& out, std::uint64_t value, const FormatSpec& format) { Format(out, value, false, format); }
void AppendInteger(string_t& out, std::int64_t value, const FormatSpec& format) { FormatSigned(out, value, format); }
void AppendInteger(string_t& out, std::uint64_t value, const FormatSpec& format) { Format(out, value, false, format); }

}  // namespace zel
