// The product's own programs as trusted entries of the host's application
// exclusion list: the fixed table of their paths, the records written for
// them, and the merge that adds missing records to the list as read from the
// exclusion service. The merge only appends: records it doesn't know stay
// where they are, and nothing is ever removed.
#pragma once

#include <cstdint>
#include <span>
#include <string_view>

#include "app_control/interfaces/exclusion_record.h"
#include "zel/serialization/type_descriptor.h"
#include "zel/types/string.h"

namespace tov::app_control::tools {

// The programs of the product, in the order they are entered.
inline constexpr const char* kProductTrustedPrograms[] = {
    "/opt/tessarine/mornagent64/sbin/mornagent",   "/opt/tessarine/vorn/libexec/vorn-gui",
    "/opt/tessarine/vorn/bin/vorn-control",        "/opt/tessarine/vorn/libexec/vorn",
    "/opt/tessarine/vorn/libexec/gaiterd",         "/opt/tessarine/drelsh/bin/drelsh",
    "/opt/tessarine/drelsh/bin/category_probe",    "/opt/tessarine/drelsh/bin/ac_shell_probe_nls",
};

// UTF-8 to UTF-16 for exclusion paths: a byte that doesn't begin a complete
// sequence becomes one '?' (0x3F), a code point above 0xFFFF a surrogate
// pair, one above 0x10FFFF a single '?'.
zel::wstring_t Utf8ToWideOrQuestionMark(std::string_view text);

// One record per path that resolves (realpath); a path that fails with a
// non-zero errno is left out, one that fails with errno 0 is entered with an
// empty resolved path.
exclude::applications::ExclusionList MakeTrustedProgramRecords(std::span<const char* const> paths);

// Appends each record of `programs` that `list` doesn't hold yet, judged by
// equal path (exact code units) and equal mask against the list as it was
// given. true when something was appended.
bool MergeTrustedPrograms(exclude::applications::ExclusionList& list,
                          const exclude::applications::ExclusionList& programs);

}  // namespace tov::app_control::tools

namespace zel {
template <>
struct SerObjId<exclude::applications::ExclusionList> {
  static constexpr std::uint32_t value = exclude::applications::kExclusionListSerId;
};
}  // namespace zel
