// FormatResult: one answer of the format recogniser, linked to the next one.
// How the chain is to be read is told by GetKind of its first element.
#pragma once

#include <cstdint>

#include "app_control/interfaces/format_record.h"
#include "zel/iobject.h"

namespace format_result_kind {
// The elements are candidates; one counts only if the file's extension
// confirms it.
inline constexpr std::uint32_t Candidates = 1;
// The elements are formats that all apply; the one of highest priority
// counts.
inline constexpr std::uint32_t Set = 2;
}  // namespace format_result_kind

class FormatResult : public zel::IObject {
 public:
  static constexpr zel::iid_t iid = 0x5B91D3E6;

  // Copies this element's record into `record`.
  virtual zel::result_t GetRecord(FormatRecord& record) = 0;
  // One of format_result_kind; any other value means nothing usable.
  virtual zel::result_t GetKind(std::uint32_t& kind) = 0;
  // 0 with `next` set to a new reference the caller owns; a positive result
  // at the end of the chain, with `next` null; negative on failure.
  virtual zel::result_t GetNext(FormatResult*& next) = 0;

 protected:
  ~FormatResult() = default;
};
