// InventoryStorage (class 0x56932657): the persistent application inventory
// in the host's key-value store. The scan task writes it through
// IInventoryStorage, any component reads it through IInventoryInfoProvider.
//
// Only the list of ids (each once) and the time of the last AddInfo are
// kept in memory (some 40 bytes an application); every record is read back from the store
// when asked for. AddInfo writes its record at once but the stored list and
// timestamp follow only at Flush, and only Flush and Clear commit.
//
// Thread safety: any operation from any thread; each holds m_mutex (not
// recursive) from start to end, so a long GetApplicationList holds a writer
// off for as long as it reads.
#pragma once

#include <cstdint>
#include <mutex>
#include <unordered_set>

#include "app_control/application_ids.h"
#include "app_control/interfaces/iinventory_info_provider.h"
#include "app_control/interfaces/iinventory_storage.h"
#include "app_control/interfaces/ikey_value_storage.h"
#include "zel/noncopyable.h"
#include "zel/rtl/objbase.h"
#include "zel/rtl/objclient.h"

namespace tov::app_control {

class InventoryStorage
    : public IInventoryStorage,
      public tov::IInventoryInfoProvider,
      public zel::ObjectRootEx<zel::CompositeServiceStrategyHelper<
          zel::ServiceStrategyAdapter<zel::AllocatorProvider>, zel::ServiceStrategyAdapter<zel::TracerProvider>,
          zel::ServiceStrategyAdapter<zel::ServiceLocatorProvider>>>,
      public zel::NonCopyable {
 public:
  static constexpr std::uint32_t clsid = 0x56932657;
  using interfaces = zel::InterfaceList<IInventoryStorage, tov::IInventoryInfoProvider>;
  using ApplicationId = tov::ApplicationId;

  // Throws when the locator has no key-value store. A store that can't be
  // read gives an empty inventory.
  explicit InventoryStorage(zel::IServiceLocator* serviceLocator);

  // IInventoryStorage
  zel::result_t AddInfo(const tov::ApplicationInfo& info) override;
  zel::result_t Clear() override;
  zel::result_t Flush() override;

  // IInventoryInfoProvider
  zel::result_t GetApplicationList(tov::ApplicationList& list) const override;
  zel::result_t GetApplicationInfo(const ApplicationId& id, tov::ApplicationInfo& info) const override;
  zel::result_t GetApplicationIdList(std::uint64_t from, std::uint64_t count,
                                     tov::ApplicationIdList& list) const override;

 protected:
  // Flushes, ignoring the result.
  ~InventoryStorage();

 private:
  using IdList = decltype(ApplicationIds::list);
  using KeyRange = app_core::component::IKeyValueStorage::KeyRange;

  // Expects m_mutex held.
  zel::result_t LoadAppInfo(const ApplicationId& id, tov::ApplicationInfo& info) const;
  zel::result_t FlushLocked();
  // Fills every record's categoryNames from the controller's service settings.
  void ResolveCategoryNames(tov::ApplicationList& list) const;

  template <class T>
  zel::result_t SaveValue(const KeyRange& key, const T& val);
  zel::result_t SaveValue(const KeyRange& key, std::uint64_t val);
  zel::result_t SaveValue(const KeyRange& key, IdList& ids);
  template <class T>
  zel::result_t LoadValue(const KeyRange& key, T& val) const;
  void LoadIdList();
  void LoadTimestamp();

  mutable std::mutex m_mutex;
  IdList m_ids;
  // The ids of m_ids, so that none goes into it twice.
  std::unordered_set<ApplicationId> m_idSet;
  std::uint64_t m_timestamp = 0;
  zel::RefPtr<app_core::component::IKeyValueStorage> m_storage;
};

}  // namespace tov::app_control
