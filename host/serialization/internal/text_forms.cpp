#include "host/serialization/internal/text_forms.h"

#include <charconv>

namespace host::serialization_detail {
namespace {

bool XmlCharOk(std::uint32_t c) noexcept {
  if (c < 0x20) return c == 0x09 || c == 0x0A;
  if (c >= 0xD800 && c <= 0xDFFF) return false;
  if (c == 0xFFFE || c == 0xFFFF) return false;
  return c <= 0x10FFFF;
}

// Decodes one code point at `i`; false for anything ill-formed.
bool NextUtf8(std::string_view s, std::size_t& i, std::uint32_t& c) noexcept {
  const auto b0 = static_cast<unsigned char>(s[i]);
  if (b0 < 0x80) {
    c = b0;
    ++i;
    return true;
  }
  std::size_t n;
  std::uint32_t min;
  if ((b0 & 0xE0) == 0xC0) {
    n = 1, min = 0x80, c = b0 & 0x1Fu;
  } else if ((b0 & 0xF0) == 0xE0) {
    n = 2, min = 0x800, c = b0 & 0x0Fu;
  } else if ((b0 & 0xF8) == 0xF0) {
    n = 3, min = 0x10000, c = b0 & 0x07u;
  } else {
    return false;
  }
  if (s.size() - i <= n) return false;
  for (std::size_t k = 1; k <= n; ++k) {
    const auto b = static_cast<unsigned char>(s[i + k]);
    if ((b & 0xC0) != 0x80) return false;
    c = (c << 6) | (b & 0x3Fu);
  }
  if (c < min || c > 0x10FFFF || (c >= 0xD800 && c <= 0xDFFF)) return false;
  i += n + 1;
  return true;
}

int HexValue(char ch) noexcept {
  if (ch >= '0' && ch <= '9') return ch - '0';
  if (ch >= 'a' && ch <= 'f') return ch - 'a' + 10;
  if (ch >= 'A' && ch <= 'F') return ch - 'A' + 10;
  return -1;
}

constexpr char kHex[] = "0123456789abcdef";

}  // namespace

bool IsXmlSafeUtf8(std::string_view text) noexcept {
  std::size_t i = 0;
  std::uint32_t c = 0;
  while (i < text.size()) {
    if (!NextUtf8(text, i, c) || !XmlCharOk(c)) return false;
  }
  return true;
}

bool XmlSafeUtf16ToUtf8(std::u16string_view text, std::string& out) {
  // Written through a pointer into room for the worst case (three bytes a
  // unit; a pair of units gives four) and cut to size after: a push_back a
  // byte costs more than the conversion itself.
  out.resize(3 * text.size());
  char* p = out.data();
  for (std::size_t i = 0; i < text.size(); ++i) {
    std::uint32_t c = text[i];
    if (c >= 0x20 && c < 0x80) {
      *p++ = static_cast<char>(c);
      continue;
    }
    if (c >= 0xD800 && c <= 0xDBFF) {
      if (i + 1 == text.size() || text[i + 1] < 0xDC00 || text[i + 1] > 0xDFFF) return false;
      c = 0x10000 + ((c - 0xD800) << 10) + (text[++i] - 0xDC00u);
    } else if (c >= 0xDC00 && c <= 0xDFFF) {
      return false;
    }
    if (!XmlCharOk(c)) return false;
    if (c < 0x80) {
      *p++ = static_cast<char>(c);
    } else if (c < 0x800) {
      *p++ = static_cast<char>(0xC0 | (c >> 6));
      *p++ = static_cast<char>(0x80 | (c & 0x3F));
    } else if (c < 0x10000) {
      *p++ = static_cast<char>(0xE0 | (c >> 12));
      *p++ = static_cast<char>(0x80 | ((c >> 6) & 0x3F));
      *p++ = static_cast<char>(0x80 | (c & 0x3F));
    } else {
      *p++ = static_cast<char>(0xF0 | (c >> 18));
      *p++ = static_cast<char>(0x80 | ((c >> 12) & 0x3F));
      *p++ = static_cast<char>(0x80 | ((c >> 6) & 0x3F));
      *p++ = static_cast<char>(0x80 | (c & 0x3F));
    }
  }
  out.resize(static_cast<std::size_t>(p - out.data()));
  return true;
}

bool Utf8ToUtf16Strict(std::string_view text, std::u16string& out) {
  out.clear();
  out.reserve(text.size());
  std::size_t i = 0;
  std::uint32_t c = 0;
  while (i < text.size()) {
    if (!NextUtf8(text, i, c)) return false;
    if (c < 0x10000) {
      out.push_back(static_cast<char16_t>(c));
    } else {
      c -= 0x10000;
      out.push_back(static_cast<char16_t>(0xD800 + (c >> 10)));
      out.push_back(static_cast<char16_t>(0xDC00 + (c & 0x3FF)));
    }
  }
  return true;
}

void AppendHexBytes(const unsigned char* data, std::size_t size, std::string& out) {
  out.reserve(out.size() + 2 * size);
  for (std::size_t i = 0; i < size; ++i) {
    out.push_back(kHex[data[i] >> 4]);
    out.push_back(kHex[data[i] & 0xF]);
  }
}

void AppendHexUnits(std::u16string_view units, std::string& out) {
  out.reserve(out.size() + 4 * units.size());
  for (char16_t u : units) {
    for (int shift = 12; shift >= 0; shift -= 4) out.push_back(kHex[(u >> shift) & 0xF]);
  }
}

bool ParseHexBytes(std::string_view text, std::string& out) {
  if (text.size() % 2 != 0) return false;
  out.clear();
  out.reserve(text.size() / 2);
  for (std::size_t i = 0; i < text.size(); i += 2) {
    const int hi = HexValue(text[i]);
    const int lo = HexValue(text[i + 1]);
    if (hi < 0 || lo < 0) return false;
    out.push_back(static_cast<char>((hi << 4) | lo));
  }
  return true;
}

bool ParseHexUnits(std::string_view text, std::u16string& out) {
  if (text.size() % 4 != 0) return false;
  out.clear();
  out.reserve(text.size() / 4);
  for (std::size_t i = 0; i < text.size(); i += 4) {
    unsigned value = 0;
    for (std::size_t k = 0; k < 4; ++k) {
      const int d = HexValue(text[i + k]);
      if (d < 0) return false;
      value = (value << 4) | static_cast<unsigned>(d);
    }
    out.push_back(static_cast<char16_t>(value));
  }
  return true;
}

bool ParseUnsigned(std::string_view text, std::uint64_t max, std::uint64_t* out) noexcept {
  std::uint64_t v = 0;
  const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), v, 10);
  if (text.empty() || ec != std::errc() || end != text.data() + text.size() || v > max) return false;
  *out = v;
  return true;
}

bool ParseSigned(std::string_view text, std::int64_t min, std::int64_t max, std::int64_t* out) noexcept {
  std::int64_t v = 0;
  const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), v, 10);
  if (text.empty() || ec != std::errc() || end != text.data() + text.size() || v < min || v > max) return false;
  *out = v;
  return true;
}

}  // namespace host::serialization_detail
