// Text conversions: UTF-8 decoding with its invalid-byte marking, UTF-16 to
// UTF-8, 32-bit text, and the locale conversions.
#include <gtest/gtest.h>

#include <clocale>
#include <string>
#include <vector>

#include "host/services/counting_allocator.h"
#include "zel/strings/conversions.h"

namespace {

std::vector<unsigned> Units(const zel::wstring_t& w) { return std::vector<unsigned>(w.begin(), w.end()); }

TEST(Utf8ToWide, DecodingTable) {
  struct Row {
    const char* name;
    std::string bytes;
    std::vector<unsigned> units;
  } rows[] = {
      {"empty", "", {}},
      {"ascii", "Az~", {0x41, 0x7A, 0x7E}},
      {"two bytes", "\xC3\xA9", {0xE9}},
      {"three bytes", "\xE2\x82\xAC", {0x20AC}},
      {"four bytes", "\xF0\x9F\x98\x80", {0xD83D, 0xDE00}},
      {"first supplementary", "\xF0\x90\x80\x80", {0xD800, 0xDC00}},
      {"last code point", "\xF4\x8F\xBF\xBF", {0xDBFF, 0xDFFF}},
      {"0xFF", "\xFF", {0xD8FF}},
      {"largest overlong two", "\xC1\xBF", {0xD8C1, 0xD8BF}},
      {"overlong three", "\xE0\x80\x80", {0xD8E0, 0xD880, 0xD880}},
      {"encoded surrogate", "\xED\xA0\x80", {0xD8ED, 0xD8A0, 0xD880}},
      {"low 16 bits in surrogate range", "\xF0\x9D\xA0\x80", {0xD8F0, 0xD89D, 0xD8A0, 0xD880}},
      {"low 16 bits just below", "\xF0\x9D\x9F\xBF", {0xD835, 0xDFFF}},
      {"beyond U+10FFFF", "\xF4\x90\x80\x80", {0xD8F4, 0xD890, 0xD880, 0xD880}},
      {"three cut by the end", "a\xE2\x82", {0x61, 0xD8E2, 0xD882}},
      {"four cut by the end", "\xF0\x9F\x98", {0xD8F0, 0xD89F, 0xD898}},
      {"lead without continuation", "\xC3" "A", {0xD8C3, 0x41}},
      {"stray continuation", "\x80x", {0xD880, 0x78}},
      {"five-byte lead", "\xF8\x88\x80\x80\x80", {0xD8F8, 0xD888, 0xD880, 0xD880, 0xD880}},
  };
  for (const auto& r : rows) {
    EXPECT_EQ(Units(zel::Utf8ToWide(r.bytes)), r.units) << r.name;
  }
}

TEST(Utf8ToWide, UsesGivenAllocatorAndSizesOnce) {
  host::CountingAllocator alloc;
  {
    const std::string text(40, 'p');
    const auto w = zel::Utf8ToWide(zel::types::range_t<const char*>{text.data(), text.data() + text.size()}, &alloc);
    EXPECT_EQ(w.size(), 40u);
    EXPECT_EQ(w.allocator(), &alloc);
    EXPECT_EQ(alloc.TotalAllocations(), 1u);
  }
  EXPECT_EQ(alloc.LiveBlocks(), 0);
}

TEST(Utf16ToUtf8, PairsJoinLoneSurrogatesStandAlone) {
  struct Row {
    std::u16string units;
    std::string bytes;
  } rows[] = {
      {u"", ""},
      {u"abc", "abc"},
      {u"\u00e9\u20ac", "\xC3\xA9\xE2\x82\xAC"},
      {u"\U0001F600", "\xF0\x9F\x98\x80"},
      {std::u16string(1, char16_t(0xD800)), "\xED\xA0\x80"},
      {std::u16string{char16_t(0xDC00), char16_t(0xD800)}, "\xED\xB0\x80\xED\xA0\x80"},
      {std::u16string{char16_t(0xD83D), u'x'}, "\xED\xA0\xBDx"},
      {std::u16string(1, char16_t(0)), std::string(1, '\0')},
  };
  for (const auto& r : rows) {
    EXPECT_EQ(zel::Utf16ToUtf8Length(r.units), r.bytes.size());
    std::string out(r.bytes.size() + 1, '#');
    char* end = zel::Utf16ToUtf8(r.units, out.data());
    EXPECT_EQ(end - out.data(), static_cast<std::ptrdiff_t>(r.bytes.size()));
    EXPECT_EQ(out.back(), '#');  // nothing written past the end
    EXPECT_EQ(zel::Utf16ToUtf8(r.units).view(), r.bytes);
  }
}

TEST(Utf32, ToWideAndToUtf8) {
  EXPECT_EQ(Units(zel::Utf32ToWide(L"a\U0001F600")), (std::vector<unsigned>{0x61, 0xD83D, 0xDE00}));
  const std::wstring tooLarge{L'a', static_cast<wchar_t>(0x110000)};
  EXPECT_TRUE(zel::Utf32ToWide(tooLarge).empty());

  std::string out(8, '#');
  EXPECT_EQ(zel::Utf32ToUtf8Length(tooLarge), 2u);
  EXPECT_EQ(std::string(out.data(), zel::Utf32ToUtf8(tooLarge, out.data())), "a?");
  const std::wstring emoji(1, static_cast<wchar_t>(0x1F600));
  EXPECT_EQ(std::string(out.data(), zel::Utf32ToUtf8(emoji, out.data())), "\xF0\x9F\x98\x80");
}

// Restores the character-type locale on the way out.
class LocaleConversions : public ::testing::Test {
 protected:
  void SetUp() override { m_saved = std::setlocale(LC_CTYPE, nullptr); }
  void TearDown() override { std::setlocale(LC_CTYPE, m_saved.c_str()); }
  std::string m_saved;
};

TEST_F(LocaleConversions, CLocaleTakesAsciiOnlyAUtf8LocaleAll) {
  ASSERT_NE(std::setlocale(LC_CTYPE, "C"), nullptr);
  EXPECT_EQ(zel::LocaleToWide("plain text"), u"plain text");
  EXPECT_TRUE(zel::LocaleToWide("ab\xC3\xA9").empty());
  EXPECT_TRUE(zel::LocaleToWide(nullptr).empty());
  EXPECT_TRUE(zel::LocaleToWide("").empty());

  const char16_t withNul[] = {u'a', 0, u'b'};
  EXPECT_EQ(zel::WideToLocale(std::u16string_view(withNul, 3)).view(), std::string_view("a\0b", 3));
  EXPECT_TRUE(zel::WideToLocale(u"ok\u00e9").empty());

  if (std::setlocale(LC_CTYPE, "C.UTF-8") == nullptr) GTEST_SKIP() << "no C.UTF-8 locale";
  const auto w = zel::LocaleToWide("\xC3\xA9\xF0\x9F\x98\x80");
  EXPECT_EQ(Units(w), (std::vector<unsigned>{0xE9, 0xD83D, 0xDE00}));
  EXPECT_EQ(zel::WideToLocale(w.view()).view(), "\xC3\xA9\xF0\x9F\x98\x80");
  EXPECT_TRUE(zel::LocaleToWide("ok\xFF").empty());
}

}  // namespace
