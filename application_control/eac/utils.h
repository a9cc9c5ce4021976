// What the inventory asks of the format recogniser and how it reads a file
// name when the recogniser has nothing to say: the two format groups the
// scan settings switch, the extension of a path, and the extension fallback.
// The fallback differs from the confirming table on purpose (reg falls back
// to a script format its confirming row does not list).
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <string_view>

#include "application_control/common/helpers/format_recognizer.h"

namespace app_ctrl::formats {

// Switched by the first format group flag of the scan settings.
inline constexpr std::array<std::uint32_t, 3> kFirstGroup = {0x00529C9A, 0x8940E804, 0x58B0B24C};
// Switched by the second format group flag.
inline constexpr std::array<std::uint32_t, 3> kSecondGroup = {0xD716CC51, 0xB731E6B2, 0xEA0395B2};

// The formats the recogniser is created for: the second group, then the first.
inline constexpr std::array<std::uint32_t, 6> kRecognizerFormats = {
    kSecondGroup[0], kSecondGroup[1], kSecondGroup[2], kFirstGroup[0], kFirstGroup[1], kFirstGroup[2],
};

template <std::size_t N>
constexpr bool Contains(const std::array<std::uint32_t, N>& group, std::uint32_t id) noexcept {
  for (std::uint32_t g : group) {
    if (g == id) return true;
  }
  return false;
}

struct FallbackRow {
  std::initializer_list<std::u16string_view> extensions;
  std::uint32_t format;
};

// Tested in this order; the first row that holds the extension wins.
inline constexpr std::array<FallbackRow, 8> kExtensionFallback = {{
    {{u"com"}, 0x0F43104B},
    {{u"vbs", u"hta"}, 0x5A0F32FE},
    {{u"js"}, 0x8940E804},
    {{u"reg", u"py", u"rb", u"sh", u"pl", u"pm", u"t"}, 0x58B0B24C},
    {{u"cmd", u"ps1"}, 0xF469FF32},
    {{u"msc"}, 0x3B516E84},
    {{u"jar"}, 0x00529C9A},
    {{u"pyc", u"pyo", u"pyd"}, 0xEA0395B2},
}};

// The format an extension alone stands for; kUnrecognized for any other.
constexpr std::uint32_t FormatFromExtension(std::u16string_view extension) noexcept {
  for (const FallbackRow& row : kExtensionFallback) {
    for (std::u16string_view e : row.extensions) {
      if (e == extension) return row.format;
    }
  }
  return kUnrecognized;
}

// The extension of a path: what follows the last dot when no slash stands
// after it; empty when a slash comes first or there is no dot. The case is
// kept, and a leading dot counts like any other (".profile" gives "profile").
constexpr std::u16string_view ExtensionOf(std::u16string_view path) noexcept {
  for (std::size_t i = path.size(); i > 0; --i) {
    const char16_t c = path[i - 1];
    if (c == u'.') return path.substr(i);
    if (c == u'/') break;
  }
  return {};
}

}  // namespace app_ctrl::formats
