// The pieces from which an engine verdict becomes a product event: the
// verdict table, the reading of the engine's user fields, the parent's
// image name, and typed appends of event fields. All of them work on values
// only; the callback that strings them together owns the order.
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

#include "app_control/interfaces/runtime_event.h"
#include "tov_common/enums/enum_names.h"
#include "zel/types/string.h"

namespace tov::app_control::tools {

struct VerdictEvent {
  tov::EventType eventType;
  tov::Severity severity;
};

// 1 allowed, 2 blocked; a negative verdict was reached in test mode and
// says in bit 0 (allowed, tested first) or bit 1 (blocked) what would have
// been done. Any other value publishes nothing.
std::optional<VerdictEvent> EventForVerdict(std::int32_t verdict) noexcept;

// The engine's decimal user id text as std::stoll reads it in base 10,
// after narrowing it code point by code point in the current locale.
// Raises std::bad_cast for text the locale can't narrow, and what std::stoll
// raises (std::invalid_argument, std::out_of_range) for text that isn't a
// number that fits.
std::int64_t ParseUserId(std::u16string_view text);

// What follows the first backslash of "domain\name"; a name without one
// stays whole.
std::u16string_view UserNameWithoutDomain(std::u16string_view name) noexcept;

// The part behind the last '/', the whole path when there is none.
std::u16string_view ImageFileName(std::u16string_view imagePath) noexcept;

// Seconds of the real-time clock, -1 when it can't be read.
std::int64_t CurrentEventTime() noexcept;

// Typed appends of one field (tags 15, 9 and 10). Text takes its memory
// from the field list's allocator, so that one arena can hold a whole event.
void AppendField(RuntimeEvent& event, tov::FieldName name, std::u16string_view value);
void AppendField(RuntimeEvent& event, tov::FieldName name, std::int32_t value);
void AppendField(RuntimeEvent& event, tov::FieldName name, std::uint64_t value);

}  // namespace tov::app_control::tools
