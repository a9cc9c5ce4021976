// The inventory scan settings as the host hands them to the scan task: which
// kinds of files are inventoried, what happens to the GoldenImage category,
// and where the walk goes. The task copies the record; a change takes effect
// at the next start.
//
// Contract: fields stay in the order below (the host reads them through the
// type descriptors, StaticTypeDescriptor<T>::Get()). Serialisation ids:
// InventoryScanSettings 0x2E81D0C4, ScanScope 0x2E81D0C5, SecondaryScope
// 0x2E81D0C6; chosen here, since nothing else fixes them. goldenImageAction
// is a 32-bit number that may hold values outside GoldenImageAction; readers
// treat those like None.
#pragma once

#include <cstdint>

#include "tov_common/settings/scan_scope.h"
#include "zel/serialization/type_descriptor.h"

namespace tov::settings {

enum class GoldenImageAction : std::uint32_t {
  None = 0,
  Add = 1,     // the run builds the category from every stored file's hash
  Remove = 2,  // the run drops the category and its key from every record
};

// The scope a fresh settings record carries: every file of /usr/bin.
ScanScope DefaultScanScope();

struct InventoryScanSettings {
  static constexpr std::uint32_t SerId = 0x2E81D0C4;

  bool firstFormatGroupEnabled = true;
  bool secondFormatGroupEnabled = true;
  // A file with an executable bit is inventoried without a format test.
  bool executableBitEnabled = true;
  GoldenImageAction goldenImageAction = GoldenImageAction::None;
  ScanScopeList scanScopes{DefaultScanScope()};
  SecondaryScopeList secondaryScopes;
};

inline constexpr std::uint32_t kScanScopeSerId = 0x2E81D0C5;
inline constexpr std::uint32_t kSecondaryScopeSerId = 0x2E81D0C6;

}  // namespace tov::settings

namespace zel {
template <>
struct StaticTypeDescriptor<tov::settings::ScanScope> {
  static const TypeDescriptor* Get() noexcept;
};
template <>
struct StaticTypeDescriptor<tov::settings::SecondaryScope> {
  static const TypeDescriptor* Get() noexcept;
};
template <>
struct StaticTypeDescriptor<tov::settings::InventoryScanSettings> {
  static const TypeDescriptor* Get() noexcept;
};
}  // namespace zel
