// tov::RuntimeEvent: one product event as it goes to the event publisher: a
// type, a severity, whom it concerns, when, and its typed fields. Producers
// fill it on their stack; the publisher copies what it keeps.
#pragma once

#include <cstdint>
#include <optional>

#include "tov_common/runtime_field.h"
#include "zel/types/string.h"
#include "zel/types/vector.h"

namespace tov {

struct EventSubjectUser {
  std::int64_t userId = 0;
  zel::wstring_t userName;
};

struct EventSubject {
  std::int32_t kind = 2;
  std::optional<EventSubjectUser> user;
};

struct RuntimeEvent {
  std::uint64_t reserved = 0;
  std::int32_t eventType = -1;  // EventType
  std::int32_t severity = 4;    // Severity; 4 is Informational
  EventSubject subject;
  std::int64_t time = -1;  // seconds since the epoch, -1 when unknown
  zel::types::vector_t<RuntimeField> runtimeFields;
  zel::types::vector_t<AdditionalField> additionalFields;
};

}  // namespace tov
