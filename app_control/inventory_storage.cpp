#include "app_control/inventory_storage.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string_view>
#include <unordered_map>
#include <utility>

#include "app_control/interfaces/controller_service_settings.h"
#include "tov_common/blob_tools.h"
#include "tov_common/categories/category_text.h"
#include "tov_utils/interfaces/iservice_manager.h"
#include "zel/rtl/error_handling/checks.h"
#include "zel/rtl/error_handling/exceptions.h"
#include "zel/system/datetime.h"
#include "zel/trace/trace_stream.h"
#include "zel/util/rtl_impl/anyptr_helpers.h"

namespace zel {
template <>
struct SerObjId<app_ctrl::ControllerServiceSettings> {
  static constexpr std::uint32_t value = app_ctrl::kControllerServiceSettingsId;
};
}  // namespace zel

namespace tov::app_control {

namespace {

using KeyRange = app_core::component::IKeyValueStorage::KeyRange;
using uint64_t = std::uint64_t;
using zel::trace_level::Info;

// A store key without a terminator. The fixed keys are not numbers, so no
// id's decimal text can take their place.
struct NodeName {
  char text[24];
  std::size_t size;

  operator KeyRange() const noexcept { return KeyRange{text, text + size}; }
};

constexpr KeyRange FixedKey(std::string_view name) noexcept { return KeyRange{name.data(), name.data() + name.size()}; }

const KeyRange AppIdList = FixedKey("appIdList");
const KeyRange Timestamp = FixedKey("timestamp");

NodeName MakeNodeName(tov::ApplicationId id) noexcept {
  NodeName name{};
  const int n = std::snprintf(name.text, sizeof(name.text), "%lu", static_cast<unsigned long>(id));
  name.size = n > 0 ? static_cast<std::size_t>(n) : 0;
  return name;
}

// Wide text to wide text without a copy of the key at lookup.
struct TextHash {
  using is_transparent = void;
  std::size_t operator()(std::u16string_view text) const noexcept { return std::hash<std::u16string_view>{}(text); }
};
struct TextEqual {
  using is_transparent = void;
  bool operator()(std::u16string_view a, std::u16string_view b) const noexcept { return a == b; }
};
using CategoryNameMap = std::unordered_map<std::u16string, zel::wstring_t, TextHash, TextEqual>;

constexpr const char* kConstructorSignature = "tov::app_control::InventoryStorage::InventoryStorage(zel::IServiceLocator*)";

}  // namespace

InventoryStorage::InventoryStorage(zel::IServiceLocator* serviceLocator) : ObjectRootEx(serviceLocator) {
  ZEL_TRACE(GetTracer(), Info) << kConstructorSignature;
  const zel::result_t r = zel::GetInterface(GetServiceLocator(), m_storage.Ref());
  if (ZEL_FAILED(r)) {
    throw zel::ResultCodeException(__FILE__, __LINE__, "Expression failed", r)
        << "Cannot get app_core::component::IKeyValueStorage";
  }
  LoadTimestamp();
  LoadIdList();
}

InventoryStorage::~InventoryStorage() {
  ZEL_TRACE(GetTracer(), Info) << "tov::app_control::InventoryStorage::~InventoryStorage()";
  // Flush converts its own exceptions; what the store says can't change here.
  static_cast<void>(Flush());
}

void InventoryStorage::LoadTimestamp() {
  app_core::component::IKeyValueStorage::Value value;
  if (ZEL_FAILED(m_storage->GetValue(Timestamp, value))) return;
  // Fewer than eight bytes is no timestamp at all: it stays 0.
  if (value.size() < sizeof(m_timestamp)) return;
  std::memcpy(&m_timestamp, value.data(), sizeof(m_timestamp));
}

void InventoryStorage::LoadIdList() {
  try {
    ApplicationIds ids;
    if (ZEL_FAILED(LoadValue(AppIdList, ids))) return;
    // A list stored twice under one id (by an older version) is read as one.
    IdList unique;
    unique.reserve(ids.list.size());
    m_idSet.reserve(ids.list.size());
    for (const ApplicationId id : ids.list)
      if (m_idSet.insert(id).second) unique.push_back(id);
    m_ids.swap(unique);
  } catch (...) {
    // A type the host can't describe leaves the list empty; the object
    // still comes up, the reason is on the line written here.
    static_cast<void>(zel::ResultFromCurrentException(GetTracer(), kConstructorSignature));
  }
}

template <class T>
zel::result_t InventoryStorage::SaveValue(const KeyRange& key, const T& val) {
  namespace tools = ::tools;
  zel::IServiceLocator* sl = GetServiceLocator();
  tools::Blob data;
  ZEL_CHECK_RESULT_LOG_RETURN(GetTracer(), tools::AnyToXmlBlob(sl, zel::make_anydescrptr(sl, val), data),
                              "Cannot serialize");
  const auto* bytes = data.data();
  return m_storage->SetValue(key, app_core::component::IKeyValueStorage::ValueRange{bytes, bytes + data.size()});
}

zel::result_t InventoryStorage::SaveValue(const KeyRange& key, std::uint64_t val) {
  unsigned char bytes[sizeof(val)];
  std::memcpy(bytes, &val, sizeof(val));
  return m_storage->SetValue(key, app_core::component::IKeyValueStorage::ValueRange{bytes, bytes + sizeof(bytes)});
}

zel::result_t InventoryStorage::SaveValue(const KeyRange& key, IdList& ids) {
  // The list goes into the record and back rather than being copied: it
  // can hold every application of the machine.
  struct Lend {
    IdList& from;
    ApplicationIds record;
    explicit Lend(IdList& list) : from(list) { record.list.swap(from); }
    ~Lend() { record.list.swap(from); }
  } lend(ids);
  return SaveValue(key, lend.record);
}

template <class T>
zel::result_t InventoryStorage::LoadValue(const KeyRange& key, T& val) const {
  namespace tools = ::tools;
  zel::IServiceLocator* sl = GetServiceLocator();
  app_core::component::IKeyValueStorage::Value blob;
  const zel::result_t r = m_storage->GetValue(key, blob);
  if (ZEL_FAILED(r)) return r;
  T fresh{};
  const zel::anydescrptr any = zel::make_anydescrptr(sl, fresh);
  const tools::BlobRange data{blob.data(), blob.data() + blob.size()};
  ZEL_CHECK_RESULT_LOG_RETURN(GetTracer(), tools::AnyFromXmlBlob(sl, data, any), "Cannot deserialize data");
  val = std::move(fresh);
  return zel::result::NoError;
}

zel::result_t InventoryStorage::AddInfo(const tov::ApplicationInfo& info) {
  try {
    ZEL_TRACE(GetTracer(), Info)
        << "virtual result_t tov::app_control::InventoryStorage::AddInfo(const tov::ApplicationInfo&)" << ", id:"
        << info.id;
    std::lock_guard lock(m_mutex);
    m_timestamp = zel::datetime::now();
    // A second record under an id replaces the first in the store; the id
    // stays once in the list.
    const bool added = m_idSet.insert(info.id).second;
    try {
      if (added) m_ids.push_back(info.id);
    } catch (...) {
      m_idSet.erase(info.id);
      throw;
    }
    ZEL_CHECK_RESULT_LOG_RETURN(GetTracer(), SaveValue(MakeNodeName(info.id), info), "Cannot save value to storage");
    return zel::result::NoError;
  } catch (...) {
    return zel::ResultFromCurrentException(
        GetTracer(), "virtual result_t tov::app_control::InventoryStorage::AddInfo(const tov::ApplicationInfo&)");
  }
}

zel::result_t InventoryStorage::Clear() {
  try {
    std::lock_guard lock(m_mutex);
    // Every result is ignored: whatever can be removed is, and the list in
    // memory, not the stored one, says what there is to remove.
    for (const ApplicationId id : m_ids) static_cast<void>(m_storage->RemoveValue(MakeNodeName(id)));
    m_ids.clear();
    m_idSet.clear();
    static_cast<void>(m_storage->RemoveValue(AppIdList));
    m_timestamp = 0;
    static_cast<void>(m_storage->RemoveValue(Timestamp));
    static_cast<void>(m_storage->Commit());
  } catch (...) {
    static_cast<void>(
        zel::ResultFromCurrentException(GetTracer(), "virtual result_t tov::app_control::InventoryStorage::Clear()"));
  }
  return zel::result::NoError;
}

zel::result_t InventoryStorage::Flush() {
  try {
    ZEL_TRACE(GetTracer(), Info) << "virtual result_t tov::app_control::InventoryStorage::Flush()";
    std::lock_guard lock(m_mutex);
    return FlushLocked();
  } catch (...) {
    return zel::ResultFromCurrentException(GetTracer(), "virtual result_t tov::app_control::InventoryStorage::Flush()");
  }
}

zel::result_t InventoryStorage::FlushLocked() {
  ZEL_CHECK_RESULT_LOG_RETURN(GetTracer(), SaveValue(Timestamp, static_cast<uint64_t>(m_timestamp)));
  ZEL_CHECK_RESULT_LOG_RETURN(GetTracer(), SaveValue(AppIdList, m_ids));
  return m_storage->Commit();
}

zel::result_t InventoryStorage::LoadAppInfo(const ApplicationId& id, tov::ApplicationInfo& info) const {
  ZEL_TRACE(GetTracer(), Info)
      << "result_t tov::app_control::InventoryStorage::LoadAppInfo(const ApplicationId&, tov::ApplicationInfo&) const"
      << ", id: " << id;
  ZEL_CHECK_RESULT_LOG_RETURN(GetTracer(), LoadValue(MakeNodeName(id), info));
  return zel::result::NoError;
}

zel::result_t InventoryStorage::GetApplicationInfo(const ApplicationId& id, tov::ApplicationInfo& info) const {
  try {
    std::lock_guard lock(m_mutex);
    return LoadAppInfo(id, info);
  } catch (...) {
    return zel::ResultFromCurrentException(
        GetTracer(),
        "virtual result_t tov::app_control::InventoryStorage::GetApplicationInfo(const ApplicationId&, "
        "tov::ApplicationInfo&) const");
  }
}

zel::result_t InventoryStorage::GetApplicationList(tov::ApplicationList& list) const {
  try {
    ZEL_TRACE(GetTracer(), Info)
        << "virtual result_t tov::app_control::InventoryStorage::GetApplicationList(tov::ApplicationList&) const";
    std::lock_guard lock(m_mutex);
    tov::ApplicationList local;
    local.timestamp = m_timestamp;
    local.list.reserve(m_ids.size());
    for (const ApplicationId i : m_ids) {
      tov::ApplicationInfo info;
      ZEL_CHECK_RESULT_LOG_RETURN(GetTracer(), LoadAppInfo(i, info));
      local.list.push_back(std::move(info));
    }
    ResolveCategoryNames(local);
    list.timestamp = local.timestamp;
    list.list.swap(local.list);
    return zel::result::NoError;
  } catch (...) {
    return zel::ResultFromCurrentException(
        GetTracer(), "virtual result_t tov::app_control::InventoryStorage::GetApplicationList(tov::ApplicationList&) const");
  }
}

void InventoryStorage::ResolveCategoryNames(tov::ApplicationList& list) const {
  CategoryNameMap names;
  names.emplace(std::u16string(tov::tools::GoldenImageCategoryIdText().view()), zel::wstring_t(u"GoldenImage"));

  zel::IServiceLocator* sl = GetServiceLocator();
  zel::RefPtr<app_core::facade::IServiceManager> esm;
  const zel::result_t got =
      ZEL_CHECK_RESULT_LOG(GetTracer(), zel::GetInterface(sl, esm.Ref()), "Cannot get app_core::facade::IServiceManager");
  if (ZEL_FAILED(got)) return;

  app_ctrl::ControllerServiceSettings record;
  app_core::facade::SettingsHolder settings{&record, zel::SerObjId<app_ctrl::ControllerServiceSettings>::value,
                                            nullptr};
  std::uint32_t revisionValue = 0;
  std::uint32_t* revision = &revisionValue;
  const zel::result_t read = ZEL_CHECK_RESULT_LOG(
      GetTracer(), esm->GetServiceSettings2( app_ctrl::CLSID_ENT_APP_CONTROLLER, &settings, revision));
  if (ZEL_FAILED(read)) return;

  for (const app_ctrl::Category& category : record.categories) {
    // A later category under the same id wins.
    names.insert_or_assign(std::u16string(tov::tools::CategoryIdToText(category.GUID).view()), category.Name);
  }

  for (tov::ApplicationInfo& info : list.list) {
    for (const tov::CategoryKey& key : info.categoryKeys) {
      const auto found = names.find(key.text.view());
      info.categoryNames.push_back(found != names.end() ? found->second : key.text);
    }
  }
}

zel::result_t InventoryStorage::GetApplicationIdList(std::uint64_t from, std::uint64_t count,
                                                     tov::ApplicationIdList& list) const {
  try {
    ZEL_TRACE(GetTracer(), Info)
        << "virtual result_t tov::app_control::InventoryStorage::GetApplicationIdList(uint64_t, uint64_t, "
           "tov::ApplicationIdList&) const"
        << ", from: " << from << ", count: " << count;
    std::lock_guard lock(m_mutex);
    const std::uint64_t size = m_ids.size();
    if (from >= size) return zel::result::False;
    const std::uint64_t n = std::min(size - from, count);
    list.reserve(list.size() + n);
    for (std::uint64_t k = 0; k < n; ++k) list.push_back(m_ids[from + k]);
    return zel::result::NoError;
  } catch (...) {
    return zel::ResultFromCurrentException(
        GetTracer(),
        "virtual result_t tov::app_control::InventoryStorage::GetApplicationIdList(uint64_t, uint64_t, "
        "tov::ApplicationIdList&) const");
  }
}

}  // namespace tov::app_control
