#include "tov_common/inventory/application_info.h"

#include <cstddef>

#include "zel/serialization/field_types.h"
#include "zel/serialization/ser_obj_descriptor.h"

namespace tov {
namespace {

namespace ft = host::ser_type;
constexpr std::uint32_t kVector = zel::ser_field_flags::Vector;
constexpr std::uint32_t kWs = sizeof(zel::wstring_t);

using KeyList = decltype(ApplicationInfo::categoryKeys);
using NameList = decltype(ApplicationInfo::categoryNames);

zel::SerObjDescriptorImpl<CategoryKey> g_keyHelper;
zel::SerObjDescriptorImpl<ApplicationInfo> g_infoHelper;
zel::SerVectorHelperImpl<KeyList> g_keyListHelper;
zel::SerVectorHelperImpl<NameList> g_nameListHelper;

#define AI_ROW(code, field, size) ft::Row(ft::code, #field, offsetof(ApplicationInfo, field), size)

constinit zel::TypeDescriptorField g_keyRows[] = {
    ft::Row(ft::UInt32, "kind", offsetof(CategoryKey, kind), 4),
    ft::Row(ft::WString, "text", offsetof(CategoryKey, text), kWs),
    zel::kFieldTableTerminator,
};

constinit zel::TypeDescriptorField g_infoRows[] = {
    AI_ROW(UInt64, id, 8),
    AI_ROW(WString, fileName, kWs),
    AI_ROW(WString, filePath, kWs),
    AI_ROW(UInt32, fileFormat, 4),
    AI_ROW(UInt32, fileAttributes, 4),
    AI_ROW(UInt32, signatureState, 4),
    AI_ROW(UInt32, reputation, 4),
    AI_ROW(WString, vendorName, kWs),
    AI_ROW(WString, productName, kWs),
    AI_ROW(WString, fileHash, kWs),
    AI_ROW(WString, fileVersion, kWs),
    AI_ROW(UInt32, architecture, 4),
    AI_ROW(UInt32, subsystem, 4),
    AI_ROW(UInt32, launchCount, 4),
    AI_ROW(UInt32, blockCount, 4),
    AI_ROW(WString, productVersion, kWs),
    AI_ROW(WString, certificateSubject, kWs),
    AI_ROW(WString, certificateIssuer, kWs),
    AI_ROW(WString, certificateThumbprint, kWs),
    AI_ROW(UInt64, fileSize, 8),
    AI_ROW(UInt64, creationTime, 8),
    AI_ROW(UInt64, modificationTime, 8),
    ft::Row(ft::Record, "categoryKeys", offsetof(ApplicationInfo, categoryKeys), sizeof(KeyList), kVector,
            &g_keyListHelper, CategoryKey::SerId),
    AI_ROW(UInt32, categorySource, 4),
    AI_ROW(UInt64, categorizedTime, 8),
    AI_ROW(WString, packageName, kWs),
    AI_ROW(WString, md5Hash, kWs),
    AI_ROW(WString, sha256Hash, kWs),
    AI_ROW(WString, description, kWs),
    AI_ROW(WString, copyright, kWs),
    AI_ROW(WString, originalFileName, kWs),
    AI_ROW(WString, internalName, kWs),
    AI_ROW(UInt64, firstSeenTime, 8),
    AI_ROW(UInt64, lastSeenTime, 8),
    AI_ROW(UInt32, detectionFlags, 4),
    AI_ROW(UInt64, inodeNumber, 8),
    AI_ROW(UInt64, deviceNumber, 8),
    AI_ROW(UInt64, changeTime, 8),
    AI_ROW(Int32, ownerUid, 4),
    AI_ROW(Int32, ownerGid, 4),
    ft::Row(ft::WString, "categoryNames", offsetof(ApplicationInfo, categoryNames), sizeof(NameList), kVector,
            &g_nameListHelper),
    zel::kFieldTableTerminator,
};

#undef AI_ROW

constinit zel::TypeDescriptor g_keyDescriptor{CategoryKey::SerId, "CategoryKey", sizeof(CategoryKey), g_keyRows,
                                              &g_keyHelper};
constinit zel::TypeDescriptor g_infoDescriptor{ApplicationInfo::SerId, "ApplicationInfo", sizeof(ApplicationInfo),
                                               g_infoRows, &g_infoHelper};

}  // namespace

std::span<const zel::TypeDescriptor* const> InventoryRecordDescriptors() noexcept {
  static const zel::TypeDescriptor* const descriptors[] = {&g_keyDescriptor, &g_infoDescriptor};
  return descriptors;
}

}  // namespace tov

namespace zel {
const TypeDescriptor* StaticTypeDescriptor<tov::CategoryKey>::Get() noexcept { return &tov::g_keyDescriptor; }
const TypeDescriptor* StaticTypeDescriptor<tov::ApplicationInfo>::Get() noexcept { return &tov::g_infoDescriptor; }
}  // namespace zel
