// Fuzzes the text conversions of zel/strings/conversions.h. The first byte
// picks how the rest is read: as UTF-8 bytes, as UTF-16 units, or as 32-bit
// values; each path checks the properties that hold for every input and
// the round trips that hold for well-formed text. The locale paths run in
// the "C" locale and in C.UTF-8, switched per input.
#include <algorithm>
#include <clocale>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

#include "host/services/counting_allocator.h"
#include "zel/strings/conversions.h"

namespace {

void Check(bool condition) {
  if (!condition) __builtin_trap();
}

host::CountingAllocator& Allocator() {
  static auto* allocator = new host::CountingAllocator();  // lives to the end of the process
  return *allocator;
}

std::u16string_view View(const zel::wstring_t& s) { return {s.data(), s.size()}; }
std::string_view View(const zel::string_t& s) { return {s.data(), s.size()}; }

// Well-formed UTF-8 in the sense the converter keeps: shortest forms, no
// encoded surrogates, nothing beyond U+10FFFF, and no supplementary code
// point whose low 16 bits look like a surrogate (those are read as stray
// bytes on purpose).
bool KeptUtf8(std::string_view text) {
  const auto* p = reinterpret_cast<const unsigned char*>(text.data());
  const std::size_t n = text.size();
  for (std::size_t i = 0; i < n;) {
    const unsigned char b = p[i];
    std::size_t len;
    char32_t cp;
    if (b < 0x80) {
      len = 1, cp = b;
    } else if ((b & 0xE0) == 0xC0) {
      len = 2, cp = b & 0x1F;
    } else if ((b & 0xF0) == 0xE0) {
      len = 3, cp = b & 0x0F;
    } else if ((b & 0xF8) == 0xF0) {
      len = 4, cp = b & 0x07;
    } else {
      return false;
    }
    if (i + len > n) return false;
    for (std::size_t k = 1; k < len; ++k) {
      if ((p[i + k] & 0xC0) != 0x80) return false;
      cp = (cp << 6) | (p[i + k] & 0x3F);
    }
    static constexpr char32_t kMin[] = {0, 0, 0x80, 0x800, 0x10000};
    if (cp < kMin[len] || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) return false;
    if (cp >= 0x10000 && (cp & 0xFFFF) >= 0xD800 && (cp & 0xFFFF) <= 0xDFFF) return false;
    i += len;
  }
  return true;
}

// UTF-16 with every surrogate paired, and no pair that the UTF-8 reader
// would refuse on the way back (see KeptUtf8).
bool KeptUtf16(std::u16string_view text) {
  for (std::size_t i = 0; i < text.size(); ++i) {
    const char16_t u = text[i];
    if (u >= 0xDC00 && u <= 0xDFFF) return false;
    if (u >= 0xD800 && u <= 0xDBFF) {
      if (i + 1 >= text.size() || text[i + 1] < 0xDC00 || text[i + 1] > 0xDFFF) return false;
      const char32_t cp = 0x10000 + ((char32_t{u} - 0xD800) << 10) + (char32_t{text[i + 1]} - 0xDC00);
      if ((cp & 0xFFFF) >= 0xD800 && (cp & 0xFFFF) <= 0xDFFF) return false;
      ++i;
    }
  }
  return true;
}

void FromUtf8(std::string_view bytes, bool utf8Locale) {
  zel::IAllocator* a = &Allocator();
  const zel::wstring_t wide = zel::Utf8ToWide(bytes, a);
  // Never fails, and never more units than bytes.
  Check(wide.size() <= bytes.size());
  Check(bytes.empty() == wide.empty());
  const zel::string_t back = zel::Utf16ToUtf8(View(wide), a);
  Check(zel::Utf16ToUtf8Length(View(wide)) == back.size());
  const bool kept = KeptUtf8(bytes);
  if (kept) Check(View(back) == bytes);
  // A stray byte stays visible: the text comes back different.
  if (!kept) Check(View(back) != bytes);

  // The locale reader stops at the first NUL, as C text does.
  const std::string text(bytes.substr(0, bytes.find('\0')));
  const zel::wstring_t local = zel::LocaleToWide(text.c_str(), a);
  if (utf8Locale && KeptUtf8(text)) {
    Check(View(local) == View(zel::Utf8ToWide(text, a)));
    Check(View(zel::WideToLocale(View(local), a)) == text);
  }
  if (!utf8Locale) {
    // "C": every byte below 0x80 is one character; glibc refuses the others.
    const bool ascii = std::all_of(text.begin(), text.end(), [](char c) { return (c & 0x80) == 0; });
    if (ascii) {
      Check(local.size() == text.size());
      Check(View(zel::WideToLocale(View(local), a)) == text);
    }
  }
}

void FromUtf16(std::u16string_view units, bool utf8Locale) {
  zel::IAllocator* a = &Allocator();
  const zel::string_t bytes = zel::Utf16ToUtf8(units, a);
  Check(zel::Utf16ToUtf8Length(units) == bytes.size());
  // Every unit takes at most three bytes (a pair takes four for two units).
  Check(bytes.size() <= 3 * units.size());
  const zel::wstring_t back = zel::Utf8ToWide(View(bytes), a);
  if (KeptUtf16(units)) {
    Check(View(back) == units);
    Check(KeptUtf8(View(bytes)));
  }
  const zel::string_t local = zel::WideToLocale(units, a);
  if (utf8Locale && KeptUtf16(units) && units.find(u'\0') == std::u16string_view::npos) {
    Check(View(local) == View(bytes));
  }
}

void FromUtf32(std::wstring_view values) {
  zel::IAllocator* a = &Allocator();
  const std::size_t length = zel::Utf32ToUtf8Length(values);
  std::string bytes(length, '\0');
  Check(zel::Utf32ToUtf8(values, bytes.data()) == bytes.data() + length);
  const zel::wstring_t wide = zel::Utf32ToWide(values, a);
  bool inRange = true;
  for (const wchar_t wc : values) inRange = inRange && static_cast<char32_t>(wc) <= 0x10FFFF;
  if (!inRange) {
    Check(wide.empty());
    return;
  }
  // In range and free of surrogate values, the two ways to UTF-8 agree. A
  // surrogate value passes to the wide form as one unit, where a high one
  // followed by a low one becomes a pair, while straight to UTF-8 each value
  // gets its own 3 bytes.
  bool surrogates = false;
  for (const wchar_t wc : values) surrogates = surrogates || (wc >= 0xD800 && wc <= 0xDFFF);
  if (!surrogates) Check(View(zel::Utf16ToUtf8(View(wide), a)) == bytes);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  const std::int64_t live = Allocator().LiveBlocks();
  const std::uint8_t mode = data[0];
  ++data, --size;
  const bool utf8Locale = (mode & 4) != 0;
  Check(std::setlocale(LC_ALL, utf8Locale ? "C.UTF-8" : "C") != nullptr);
  switch (mode & 3) {
    case 0:
    case 1:
      FromUtf8(std::string_view(reinterpret_cast<const char*>(data), size), utf8Locale);
      break;
    case 2: {
      std::u16string units(size / 2, u'\0');
      std::memcpy(units.data(), data, units.size() * 2);
      FromUtf16(units, utf8Locale);
      break;
    }
    default: {
      std::wstring values(size / 4, L'\0');
      std::memcpy(values.data(), data, values.size() * 4);
      FromUtf32(values);
      break;
    }
  }
  Check(Allocator().LiveBlocks() == live);
  return 0;
}
