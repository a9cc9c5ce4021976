#include "tov_common/categories/internal/locale_text.h"

#include <climits>
#include <cstdint>
#include <cwchar>
#include <typeinfo>

namespace tov::tools::detail {

namespace {

constexpr char32_t kMaxCodePoint = 0x10FFFF;

bool IsHighSurrogate(char16_t u) { return u >= 0xD800 && u <= 0xDBFF; }
bool IsLowSurrogate(char16_t u) { return u >= 0xDC00 && u <= 0xDFFF; }

}  // namespace

zel::wstring_t WidenOrThrow(std::string_view text) {
  std::u16string units;
  units.reserve(text.size());
  std::size_t pos = 0;
  while (pos < text.size()) {
    std::mbstate_t state{};
    wchar_t wc = 0;
    const std::size_t n = std::mbrtowc(&wc, text.data() + pos, text.size() - pos, &state);
    if (n == static_cast<std::size_t>(-1) || n == static_cast<std::size_t>(-2)) throw std::bad_cast();
    const auto cp = static_cast<char32_t>(wc);
    if (cp > kMaxCodePoint) throw std::bad_cast();
    // mbrtowc reports a NUL byte as 0 consumed bytes; it is one unit of text.
    pos += n == 0 ? 1 : n;
    if (cp > 0xFFFF) {
      const char32_t v = cp - 0x10000;
      units.push_back(static_cast<char16_t>(0xD800 + (v >> 10)));
      units.push_back(static_cast<char16_t>(0xDC00 + (v & 0x3FF)));
    } else {
      units.push_back(static_cast<char16_t>(cp));
    }
  }
  return zel::wstring_t(std::u16string_view(units));
}

bool TryNarrow(std::u16string_view text, std::string& out) {
  const std::size_t start = out.size();
  char buffer[MB_LEN_MAX];
  for (std::size_t i = 0; i < text.size(); ++i) {
    char32_t cp = text[i];
    if (IsHighSurrogate(text[i]) && i + 1 < text.size() && IsLowSurrogate(text[i + 1])) {
      cp = 0x10000 + ((static_cast<char32_t>(text[i] - 0xD800) << 10) | (text[i + 1] - 0xDC00));
      ++i;
    }
    if (cp == 0) {
      out.push_back('\0');
      continue;
    }
    std::mbstate_t state{};
    const std::size_t n = std::wcrtomb(buffer, static_cast<wchar_t>(cp), &state);
    if (n == static_cast<std::size_t>(-1)) {
      out.resize(start);
      return false;
    }
    out.append(buffer, n);
  }
  return true;
}

std::string NarrowOrThrow(std::u16string_view text) {
  std::string out;
  if (!TryNarrow(text, out)) throw std::bad_cast();
  return out;
}

}  // namespace tov::tools::detail
