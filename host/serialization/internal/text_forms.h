// Text helpers of the XML form: strict UTF-8 and UTF-16 checks and
// conversions, the test whether XML can carry a text as it is, hexadecimal
// forms and strict number parsing (the whole text, nothing around it).
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace host::serialization_detail {

// True when `text` is well-formed UTF-8 of characters that an XML 1.0 text
// node keeps unchanged (tab, line feed, and everything from U+0020 except
// surrogates, U+FFFE and U+FFFF; no carriage return, which parsers rewrite).
bool IsXmlSafeUtf8(std::string_view text) noexcept;
// The same for UTF-16; converts to UTF-8 into `out` when it is.
bool XmlSafeUtf16ToUtf8(std::u16string_view text, std::string& out);
// Strict UTF-8 to UTF-16; false for anything ill-formed.
bool Utf8ToUtf16Strict(std::string_view text, std::u16string& out);

// Two lower-case hex digits a byte.
void AppendHexBytes(const unsigned char* data, std::size_t size, std::string& out);
// Four hex digits a unit, most significant first.
void AppendHexUnits(std::u16string_view units, std::string& out);
bool ParseHexBytes(std::string_view text, std::string& out);
bool ParseHexUnits(std::string_view text, std::u16string& out);

bool ParseUnsigned(std::string_view text, std::uint64_t max, std::uint64_t* out) noexcept;
bool ParseSigned(std::string_view text, std::int64_t min, std::int64_t max, std::int64_t* out) noexcept;

}  // namespace host::serialization_detail
