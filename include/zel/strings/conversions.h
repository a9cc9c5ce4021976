// Conversions between the text forms of the system: narrow UTF-8 (or
// C-locale) text, 16-bit wide text (UTF-16), and the platform's 32-bit
// wchar_t. None of them reports errors: a text that cannot be converted
// comes out empty. Only memory and length failures throw.
#pragma once

#include <cstddef>
#include <string_view>

#include "zel/iallocator.h"
#include "zel/types/range.h"
#include "zel/types/string.h"

namespace zel {

// UTF-8 to UTF-16; never fails. A byte that does not start a valid sequence
// (an overlong form, an encoded surrogate, a value beyond U+10FFFF, a
// sequence cut short) becomes the unit 0xD800 + byte, a lone high surrogate,
// so every byte string has a wide form and its stray bytes stay visible.
// Supplementary code points whose low 16 bits fall in 0xD800..0xDFFF are
// taken as invalid too; existing data depends on this.
wstring_t Utf8ToWide(std::string_view text, IAllocator* allocator = nullptr);
inline wstring_t Utf8ToWide(types::range_t<const char*> text, IAllocator* allocator = nullptr) {
  return Utf8ToWide(std::string_view(text.first, text.size()), allocator);
}

// Narrow text in the process's locale (mbrtowc) to UTF-16. Null, or any
// character that fails to convert, gives an empty string.
wstring_t LocaleToWide(const char* text, IAllocator* allocator = nullptr);

// UTF-16 to narrow text in the process's locale (wcrtomb). A surrogate pair
// is one character; a NUL unit is one NUL byte. Any failure gives an empty
// string.
string_t WideToLocale(std::u16string_view text, IAllocator* allocator = nullptr);

// UTF-16 to UTF-8. A surrogate pair is one code point; any other unit,
// a lone surrogate included, is encoded as itself (3 bytes).
std::size_t Utf16ToUtf8Length(std::u16string_view text) noexcept;
// Writes exactly Utf16ToUtf8Length(text) bytes (no NUL); returns the end.
char* Utf16ToUtf8(std::u16string_view text, char* out) noexcept;
string_t Utf16ToUtf8(std::u16string_view text, IAllocator* allocator = nullptr);

// 32-bit text to UTF-8 in the same way; a value above 0x10FFFF becomes "?".
std::size_t Utf32ToUtf8Length(std::wstring_view text) noexcept;
char* Utf32ToUtf8(std::wstring_view text, char* out) noexcept;

// The platform's 32-bit wchar_t text to UTF-16. A value above 0x10FFFF
// fails and the whole text comes out empty.
wstring_t Utf32ToWide(std::wstring_view text, IAllocator* allocator = nullptr);

}  // namespace zel
