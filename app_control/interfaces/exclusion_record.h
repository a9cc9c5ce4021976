// The application exclusion list: programs that the host's protection leaves
// alone. The list belongs to the exclusion service and is kept as its stored
// service settings under exclude::applications::eCLSID; writers merge into
// it and leave records they don't know as they are.
#pragma once

#include <cstdint>
#include <optional>
#include <utility>

#include "zel/types/string.h"
#include "zel/types/vector.h"

namespace exclude::applications {

// Service key of the exclusion service and of its stored list.
inline constexpr std::uint32_t eCLSID = 0xE80A6845;
// Serialisation id of ExclusionList.
inline constexpr std::uint32_t kExclusionListSerId = 0x4BAB601C;
// Mask of a trusted program: it is excluded from application control.
inline constexpr std::uint32_t kTrustedProgramMask = 0x40000;

struct ExclusionRecord {
  bool enabled = true;
  zel::wstring_t path;  // resolved path of the program
  std::uint32_t mask = 0;
  zel::wstring_t listedPath;  // the path as the writer listed it
  zel::wstring_t comment;
  // Optional hash restriction: algorithm and digest bytes.
  std::optional<std::pair<std::uint32_t, zel::types::vector_t<std::uint8_t>>> hash;
  std::uint32_t origin = 0;
  std::uint32_t version = 1;
};

using ExclusionList = zel::types::vector_t<ExclusionRecord>;

}  // namespace exclude::applications
