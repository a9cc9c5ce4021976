// Integer formatting by FormatSpec, wide and narrow.
#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <string>

#include "zel/strings/conversions.h"
#include "zel/strings/integer_format.h"

namespace {

using zel::FormatSpec;

FormatSpec Spec(std::uint32_t width, std::uint32_t base, std::int32_t align, std::uint32_t fill,
                bool showBase = false, std::int32_t precision = -1) {
  FormatSpec s;
  s.width = width;
  s.base = base;
  s.align = align;
  s.fill = fill;
  s.showBase = showBase;
  s.precision = precision;
  return s;
}

TEST(FormatSpec, SignedTable) {
  struct Row {
    std::int64_t value;
    FormatSpec format;
    const char* text;
  } rows[] = {
      {8, Spec(8, 16, 1, '0'), "00000008"},
      {0, FormatSpec{}, "0"},
      {-42, FormatSpec{}, "-42"},
      {std::numeric_limits<std::int64_t>::min(), FormatSpec{}, "-9223372036854775808"},
      {-1, Spec(0, 16, 1, ' '), "ffffffffffffffff"},
      {-8, Spec(0, 8, 1, ' '), "1777777777777777777770"},
      {255, Spec(0, 16, 1, ' ', true), "0xff"},
      {8, Spec(0, 8, 1, ' ', true), "010"},
      {5, Spec(0, 2, 1, ' ', true), "101"},
      {35, Spec(0, 36, 1, ' '), "z"},
      {-42, Spec(6, 10, 1, '*'), "***-42"},
      {-42, Spec(6, 10, 0, '0'), "-00042"},
      {-42, Spec(6, 10, -1, '.'), "-42..."},
      {255, Spec(8, 16, 0, '0', true), "0x0000ff"},
      {255, Spec(8, 16, -1, '_', true), "0xff____"},
      {123456, Spec(3, 10, 1, '0'), "123456"},
      {7, Spec(5, 10, 1, 0x10000), "7"},
      {7, Spec(0, 10, 1, ' ', false, 3), "007"},
  };
  for (const auto& r : rows) {
    zel::string_t narrow("[");
    zel::AppendInteger(narrow, r.value, r.format);
    EXPECT_EQ(narrow.view(), std::string("[") + r.text);
    zel::wstring_t wide;
    zel::AppendInteger(wide, r.value, r.format);
    EXPECT_EQ(zel::Utf16ToUtf8(wide).view(), r.text);
  }
}

TEST(FormatSpec, UnsignedSmallTypesAndWideFill) {
  zel::string_t s;
  zel::AppendInteger(s, std::numeric_limits<std::uint64_t>::max(), FormatSpec{});
  EXPECT_EQ(s, "18446744073709551615");
  s.clear();
  // A negative 32-bit value outside base 10 keeps its own width.
  zel::AppendInteger(s, std::int32_t{-1}, Spec(0, 16, 1, ' '));
  EXPECT_EQ(s, "ffffffff");
  s.clear();
  zel::AppendInteger(s, std::int32_t{-5}, FormatSpec{});
  EXPECT_EQ(s, "-5");

  // A fill beyond the narrow range.
  zel::wstring_t w;
  zel::AppendInteger(w, std::int64_t{1}, Spec(3, 10, 1, 0x2500));
  EXPECT_EQ(w, u"\u2500\u25001");
  zel::string_t n;
  zel::AppendInteger(n, std::int64_t{1}, Spec(3, 10, 1, 0x2500));
  EXPECT_EQ(n, "1");  // no narrow unit for that fill
}

}  // namespace
