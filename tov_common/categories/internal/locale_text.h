// Narrow <-> 16-bit text through the current C locale, code point by code
// point, as the category texts need it: unlike the framework's conversions,
// a failure is told apart from an empty text, and an embedded NUL is kept.
#pragma once

#include <string>
#include <string_view>

#include "zel/types/string.h"

namespace tov::tools::detail {

// mbrtowc over every byte; a byte sequence the locale rejects raises
// std::bad_cast.
zel::wstring_t WidenOrThrow(std::string_view text);

// wcrtomb over every code point (a surrogate pair is one); appends to `out`
// and gives true, or gives false and leaves `out` as it was.
bool TryNarrow(std::u16string_view text, std::string& out);

// As TryNarrow, but a text that can't be converted raises std::bad_cast.
std::string NarrowOrThrow(std::u16string_view text);

}  // namespace tov::tools::detail
