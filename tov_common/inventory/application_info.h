// The inventory's records: one application as the engine describes it
// (tov::ApplicationInfo), the category keys it carries, the list a reader
// gets back, and the ids that name the applications. The engine, the module
// and the host share these records, so fields stay in the order below and
// nothing is inserted; the host's serialisers reach them through the type
// descriptors declared at the end.
//
// Fields without a meaning to the inventory belong to the engine and carry
// its defaults: numbers 0, texts empty, the two owner ids -1.
#pragma once

#include <cstdint>
#include <span>

#include "zel/serialization/type_descriptor.h"
#include "zel/types/string.h"
#include "zel/types/vector.h"

namespace tov {

using ApplicationId = std::uint64_t;
using ApplicationIdList = zel::types::vector_t<ApplicationId>;

// One category an application belongs to: a category id in its 8-4-4-4-12
// text, or a name. The scan's own GoldenImage key has kind kScanCategoryKind.
struct CategoryKey {
  static constexpr std::uint32_t SerId = 0x3B6E0C52;

  std::uint32_t kind = 0;
  zel::wstring_t text;
};

inline constexpr std::uint32_t kScanCategoryKind = 1;

struct ApplicationInfo {
  static constexpr std::uint32_t SerId = 0x4F9040BE;

  ApplicationId id = 0;
  zel::wstring_t fileName;
  zel::wstring_t filePath;

  std::uint32_t fileFormat = 0;
  std::uint32_t fileAttributes = 0;
  std::uint32_t signatureState = 0;
  std::uint32_t reputation = 0;

  zel::wstring_t vendorName;
  zel::wstring_t productName;
  zel::wstring_t fileHash;  // the value GoldenImage criteria compare against
  zel::wstring_t fileVersion;

  std::uint32_t architecture = 0;
  std::uint32_t subsystem = 0;
  std::uint32_t launchCount = 0;
  std::uint32_t blockCount = 0;

  zel::wstring_t productVersion;
  zel::wstring_t certificateSubject;
  zel::wstring_t certificateIssuer;
  zel::wstring_t certificateThumbprint;

  std::uint64_t fileSize = 0;
  std::uint64_t creationTime = 0;
  std::uint64_t modificationTime = 0;

  zel::types::vector_t<CategoryKey> categoryKeys;

  std::uint32_t categorySource = 0;
  std::uint64_t categorizedTime = 0;

  zel::wstring_t packageName;
  zel::wstring_t md5Hash;
  zel::wstring_t sha256Hash;
  zel::wstring_t description;
  zel::wstring_t copyright;
  zel::wstring_t originalFileName;
  zel::wstring_t internalName;

  std::uint64_t firstSeenTime = 0;
  std::uint64_t lastSeenTime = 0;

  std::uint32_t detectionFlags = 0;

  std::uint64_t inodeNumber = 0;
  std::uint64_t deviceNumber = 0;
  std::uint64_t changeTime = 0;

  std::int32_t ownerUid = -1;
  std::int32_t ownerGid = -1;

  // Filled by the reader from the current category settings; empty in what
  // the scan stores.
  zel::types::vector_t<zel::wstring_t> categoryNames;
};

// The whole inventory as a reader gets it: when it was last written (100 ns
// units since 1601-01-01 UTC, 0 for none) and every record in order.
struct ApplicationList {
  std::uint64_t timestamp = 0;
  zel::types::vector_t<ApplicationInfo> list;
};

// Descriptors of CategoryKey and ApplicationInfo, for a host that registers
// them with its meta-information provider.
std::span<const zel::TypeDescriptor* const> InventoryRecordDescriptors() noexcept;

}  // namespace tov

namespace zel {
template <>
struct StaticTypeDescriptor<tov::CategoryKey> {
  static const TypeDescriptor* Get() noexcept;
};
template <>
struct StaticTypeDescriptor<tov::ApplicationInfo> {
  static const TypeDescriptor* Get() noexcept;
};
}  // namespace zel
