// Extensions that confirm a format the recogniser only proposed. A candidate
// whose format has no row here can never be confirmed. Comparison is exact:
// "PY" is not "py".
#pragma once

#include <array>
#include <cstdint>
#include <initializer_list>
#include <string_view>

namespace app_ctrl::formats {

struct ConfirmingExtensions {
  std::uint32_t format;
  std::initializer_list<std::u16string_view> extensions;
};

inline constexpr std::array<ConfirmingExtensions, 11> kConfirmingExtensions = {{
    {0x00529C9A, {u"jar"}},
    {0x0F43104B, {u"com"}},
    {0x24A3462D, {u"dll"}},
    {0x3B516E84, {u"hta"}},
    {0x58B0B24C,
     {u"wsh", u"wsf", u"js", u"vbs", u"hta", u"py", u"pyc", u"pyo", u"pyd", u"rb", u"pl", u"pm", u"t", u"sh"}},
    {0x5A0F32FE, {u"wsh", u"wsf", u"vbs", u"hta"}},
    {0x721343EB, {u"exe", u"scr"}},
    {0x8940E804, {u"js"}},
    {0xEA0395B2, {u"pyc", u"pyo", u"pyd"}},
    {0xEF620987,
     {u"ocx", u"cpl", u"mui", u"bin", u"acm", u"sys", u"vxd", u"vdd", u"drv", u"ax", u"com", u"dll", u"exe", u"src"}},
    {0xF469FF32, {u"sys", u"cmd", u"bat", u"com", u"ps1"}},
}};

// True when `format` has a row and `extension` stands in it.
constexpr bool ExtensionConfirmsFormat(std::uint32_t format, std::u16string_view extension) noexcept {
  for (const ConfirmingExtensions& row : kConfirmingExtensions) {
    if (row.format != format) continue;
    for (std::u16string_view e : row.extensions) {
      if (e == extension) return true;
    }
    return false;
  }
  return false;
}

}  // namespace app_ctrl::formats
