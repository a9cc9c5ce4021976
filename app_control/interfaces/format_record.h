// Records of the host's format recogniser: format ids, the description of a
// format, and the properties a caller passes along with a file. The module
// knows formats by id alone; names and descriptions are the host's.
#pragma once

#include <cstdint>

#include "zel/serialization/variant.h"
#include "zel/types/string.h"
#include "zel/types/vector.h"

using FormatId = std::uint32_t;

// The id of "no format could be named".
inline constexpr FormatId kUnrecognizedFormatId = 0xFFFFFFFF;

using FormatIdList = zel::types::vector_t<FormatId>;

struct FormatRecord {
  FormatId id = kUnrecognizedFormatId;
  std::uint8_t flag = 0;
  zel::wstring_t name;
  zel::wstring_t description;
};

// Property ids a caller may attach to a recognition request.
namespace format_property {
// The file's extension as a wide string (vt::WString), without the dot.
inline constexpr std::uint32_t Extension = 1;
}  // namespace format_property

struct FormatProperty {
  std::uint32_t id = 0;
  zel::variant_t value;
};

using FormatPropertyList = zel::types::vector_t<FormatProperty>;
