#include "zel/strings/conversions.h"

#include <cstdint>
#include <cstring>
#include <cwchar>
#include <climits>

namespace zel {

namespace {

constexpr char16_t kInvalidByteBase = 0xD800;

bool IsContinuation(unsigned char b) noexcept { return (b & 0xC0) == 0x80; }

// One step of UTF-8 decoding at `p` (with `left` > 0 bytes). Gives the
// bytes consumed and sets `cp` for a valid sequence; for an invalid lead
// byte gives 1 and sets `valid` false.
std::size_t DecodeUtf8(const unsigned char* p, std::size_t left, char32_t& cp, bool& valid) noexcept {
  const unsigned char b = p[0];
  valid = true;
  if (b < 0x80) {
    cp = b;
    return 1;
  }
  if ((b & 0xE0) == 0xC0 && left >= 2 && IsContinuation(p[1])) {
    cp = (char32_t{b & 0x1Fu} << 6) | (p[1] & 0x3Fu);
    if (cp >= 0x80) return 2;
  } else if ((b & 0xF0) == 0xE0 && left >= 3 && IsContinuation(p[1]) && IsContinuation(p[2])) {
    cp = (char32_t{b & 0x0Fu} << 12) | (char32_t{p[1] & 0x3Fu} << 6) | (p[2] & 0x3Fu);
    if (cp >= 0x800 && (cp < 0xD800 || cp > 0xDFFF)) return 3;
  } else if ((b & 0xF8) == 0xF0 && left >= 4 && IsContinuation(p[1]) && IsContinuation(p[2]) &&
             IsContinuation(p[3])) {
    cp = (char32_t{b & 0x07u} << 18) | (char32_t{p[1] & 0x3Fu} << 12) | (char32_t{p[2] & 0x3Fu} << 6) |
         (p[3] & 0x3Fu);
    const char32_t low = cp & 0xFFFF;
    if (cp >= 0x10000 && cp <= 0x10FFFF && (low < 0xD800 || low > 0xDFFF)) return 4;
  }
  valid = false;
  cp = kInvalidByteBase + b;
  return 1;
}

// Stores `cp` as one unit or a surrogate pair; returns the units written.
std::size_t PutUtf16(char32_t cp, char16_t* out) noexcept {
  if (cp < 0x10000) {
    if (out != nullptr) out[0] = static_cast<char16_t>(cp);
    return 1;
  }
  if (out != nullptr) {
    const char32_t v = cp - 0x10000;
    out[0] = static_cast<char16_t>(0xD800 + (v >> 10));
    out[1] = static_cast<char16_t>(0xDC00 + (v & 0x3FF));
  }
  return 2;
}

// Bytes of the standard UTF-8 form of `cp` (at most 0x10FFFF, or any
// 16-bit unit), written to `out` when it is not null.
std::size_t PutUtf8(char32_t cp, char* out) noexcept {
  if (cp < 0x80) {
    if (out) out[0] = static_cast<char>(cp);
    return 1;
  }
  if (cp < 0x800) {
    if (out) {
      out[0] = static_cast<char>(0xC0 | (cp >> 6));
      out[1] = static_cast<char>(0x80 | (cp & 0x3F));
    }
    return 2;
  }
  if (cp < 0x10000) {
    if (out) {
      out[0] = static_cast<char>(0xE0 | (cp >> 12));
      out[1] = static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
      out[2] = static_cast<char>(0x80 | (cp & 0x3F));
    }
    return 3;
  }
  if (out) {
    out[0] = static_cast<char>(0xF0 | (cp >> 18));
    out[1] = static_cast<char>(0x80 | ((cp >> 12) & 0x3F));
    out[2] = static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
    out[3] = static_cast<char>(0x80 | (cp & 0x3F));
  }
  return 4;
}

// The code point at text[i], joining a high surrogate with a following low
// one; `used` is the number of units taken.
char32_t NextUtf16(std::u16string_view text, std::size_t i, std::size_t& used) noexcept {
  const char16_t u = text[i];
  if (u >= 0xD800 && u <= 0xDBFF && i + 1 < text.size() && text[i + 1] >= 0xDC00 && text[i + 1] <= 0xDFFF) {
    used = 2;
    return 0x10000 + ((char32_t{u} - 0xD800) << 10) + (char32_t{text[i + 1]} - 0xDC00);
  }
  used = 1;
  return u;
}

// Runs `walk(out)` twice: once with a null `out` to count the units, then
// into a string sized once. A negative count means failure: empty result.
template <class String, class Walk>
String TwoPass(IAllocator* allocator, Walk walk) {
  String result(allocator);
  const std::ptrdiff_t count = walk(nullptr);
  if (count <= 0) return result;
  result.resize(static_cast<std::size_t>(count));
  walk(result.data());
  return result;
}

}  // namespace

wstring_t Utf8ToWide(std::string_view text, IAllocator* allocator) {
  const auto* bytes = reinterpret_cast<const unsigned char*>(text.data());
  // Paths and names are mostly ASCII: that lead is one unit per byte and
  // needs no decoding.
  std::size_t ascii = 0;
  while (ascii < text.size() && bytes[ascii] < 0x80) ++ascii;
  return TwoPass<wstring_t>(allocator, [&](char16_t* out) -> std::ptrdiff_t {
    std::size_t units = ascii;
    if (out != nullptr)
      for (std::size_t i = 0; i < ascii; ++i) out[i] = static_cast<char16_t>(bytes[i]);
    for (std::size_t i = ascii; i < text.size();) {
      char32_t cp;
      bool valid;
      i += DecodeUtf8(bytes + i, text.size() - i, cp, valid);
      units += PutUtf16(cp, out != nullptr ? out + units : nullptr);
    }
    return static_cast<std::ptrdiff_t>(units);
  });
}

wstring_t LocaleToWide(const char* text, IAllocator* allocator) {
  if (text == nullptr) return wstring_t(allocator);
  const std::size_t length = std::strlen(text);
  return TwoPass<wstring_t>(allocator, [&](char16_t* out) -> std::ptrdiff_t {
    std::size_t units = 0;
    for (std::size_t i = 0; i < length;) {
      std::mbstate_t state{};
      wchar_t wc = 0;
      const std::size_t n = std::mbrtowc(&wc, text + i, length - i, &state);
      if (n == static_cast<std::size_t>(-1) || n == static_cast<std::size_t>(-2) || n == 0) return -1;
      const auto cp = static_cast<char32_t>(wc);
      if (cp > 0x10FFFF) return -1;
      units += PutUtf16(cp, out != nullptr ? out + units : nullptr);
      i += n;
    }
    return static_cast<std::ptrdiff_t>(units);
  });
}

string_t WideToLocale(std::u16string_view text, IAllocator* allocator) {
  return TwoPass<string_t>(allocator, [&](char* out) -> std::ptrdiff_t {
    std::size_t bytes = 0;
    char buffer[MB_LEN_MAX];
    for (std::size_t i = 0; i < text.size();) {
      std::size_t used;
      const char32_t cp = NextUtf16(text, i, used);
      i += used;
      if (cp == 0) {
        if (out != nullptr) out[bytes] = '\0';
        ++bytes;
        continue;
      }
      std::mbstate_t state{};
      const std::size_t n = std::wcrtomb(buffer, static_cast<wchar_t>(cp), &state);
      if (n == static_cast<std::size_t>(-1)) return -1;
      if (out != nullptr) std::memcpy(out + bytes, buffer, n);
      bytes += n;
    }
    return static_cast<std::ptrdiff_t>(bytes);
  });
}

namespace {

// Units below 0x80 at the head of `text`: one byte each, as they are.
std::size_t AsciiLead(std::u16string_view text) noexcept {
  std::size_t n = 0;
  while (n < text.size() && text[n] < 0x80) ++n;
  return n;
}

}  // namespace

std::size_t Utf16ToUtf8Length(std::u16string_view text) noexcept {
  std::size_t bytes = AsciiLead(text);
  for (std::size_t i = bytes; i < text.size();) {
    std::size_t used;
    bytes += PutUtf8(NextUtf16(text, i, used), nullptr);
    i += used;
  }
  return bytes;
}

char* Utf16ToUtf8(std::u16string_view text, char* out) noexcept {
  const std::size_t ascii = AsciiLead(text);
  for (std::size_t i = 0; i < ascii; ++i) *out++ = static_cast<char>(text[i]);
  for (std::size_t i = ascii; i < text.size();) {
    std::size_t used;
    out += PutUtf8(NextUtf16(text, i, used), out);
    i += used;
  }
  return out;
}

string_t Utf16ToUtf8(std::u16string_view text, IAllocator* allocator) {
  string_t result(allocator);
  const std::size_t n = Utf16ToUtf8Length(text);
  if (n == 0) return result;
  result.resize(n);
  Utf16ToUtf8(text, result.data());
  return result;
}

std::size_t Utf32ToUtf8Length(std::wstring_view text) noexcept {
  std::size_t bytes = 0;
  for (const wchar_t wc : text) {
    const auto cp = static_cast<char32_t>(wc);
    bytes += cp > 0x10FFFF ? 1 : PutUtf8(cp, nullptr);
  }
  return bytes;
}

char* Utf32ToUtf8(std::wstring_view text, char* out) noexcept {
  for (const wchar_t wc : text) {
    const auto cp = static_cast<char32_t>(wc);
    if (cp > 0x10FFFF)
      *out++ = '?';
    else
      out += PutUtf8(cp, out);
  }
  return out;
}

wstring_t Utf32ToWide(std::wstring_view text, IAllocator* allocator) {
  return TwoPass<wstring_t>(allocator, [&](char16_t* out) -> std::ptrdiff_t {
    std::size_t units = 0;
    for (const wchar_t wc : text) {
      const auto cp = static_cast<char32_t>(wc);
      if (cp > 0x10FFFF) return -1;
      units += PutUtf16(cp, out != nullptr ? out + units : nullptr);
    }
    return static_cast<std::ptrdiff_t>(units);
  });
}

}  // namespace zel
