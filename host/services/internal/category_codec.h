// The byte form in which the host's category store keeps one category:
// GUID, texts as counted UTF-16 units, criteria with their expressions
// tagged by class id. Private to the category store.
#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "tov_common/categories/category_types.h"
#include "zel/iservice_locator.h"
#include "zel/result.h"

namespace host::detail {

// 0x80000046 when a criterion holds an expression of a class this form
// doesn't know; `bytes` is then incomplete.
zel::result_t EncodeCategory(const app_ctrl::Category& category, std::vector<std::uint8_t>& bytes);

// Makes the expressions through `objects` (its allocator and descriptors).
// 0x8000005C for bytes that are cut short, malformed or too long; raises what making
// an expression raises.
zel::result_t DecodeCategory(zel::IServiceLocator* objects, std::span<const std::uint8_t> bytes,
                             app_ctrl::Category& category);

}  // namespace host::detail
