// A host for the inventory storage in tests: allocator, tracer, the real
// serialisers with the inventory's descriptors, the real SQLite key-value
// store on a file of the test's choosing, and a fake service manager with
// the engine controller's settings. Records are made with App().
#pragma once

#include <cstdint>
#include <initializer_list>
#include <string>
#include <string_view>

#include "app_control/application_ids.h"
#include "app_control/interfaces/ikey_value_storage.h"
#include "host/serialization/serialization_services.h"
#include "host/services/collecting_tracer.h"
#include "host/services/counting_allocator.h"
#include "host/services/service_locator.h"
#include "host/storage/key_value_store.h"
#include "support/fake_engine_services.h"
#include "tov_common/inventory/application_info.h"
#include "tov_utils/interfaces/iservice_manager.h"
#include "zel/serialization/imeta_info.h"
#include "zel/serialization/iserializers.h"

namespace testsupport {

struct InventoryHost {
  explicit InventoryHost(std::uint32_t traceLevel = zel::trace_level::Max) : tracer(traceLevel) {
    locator.Register<zel::IAllocator>(&allocator);
    locator.Register<zel::ITracer>(&tracer);
    services = host::RegisterSerializationServices(locator);
    services.metaInfo->RegisterDescriptor(zel::StaticTypeDescriptor<tov::app_control::ApplicationIds>::Get());
    for (const zel::TypeDescriptor* d : tov::InventoryRecordDescriptors()) services.metaInfo->RegisterDescriptor(d);
    locator.Register<app_core::facade::IServiceManager>(&serviceManager);
  }
  InventoryHost(const InventoryHost&) = delete;
  InventoryHost& operator=(const InventoryHost&) = delete;
  zel::result_t OpenStore(const std::string& path, const host::KeyValueStore::Options& options = {}) {
    const zel::result_t r = store.Open(path, options);
    locator.Register<app_core::component::IKeyValueStorage>(&store);
    return r;
  }

  // The level-300 lines written so far.
  std::vector<std::string> Failures() const {
    std::vector<std::string> out;
    for (const auto& line : tracer.Lines()) {
      if (line.level == zel::trace_level::Error) out.push_back(line.text);
    }
    return out;
  }

  host::CountingAllocator allocator;
  host::CollectingTracer tracer;
  CallJournal journal;
  FakeServiceManager serviceManager{journal};
  host::KeyValueStore store;
  host::ServiceLocator locator;  // released before the services it holds
  host::SerializationServices services;
};

inline zel::wstring_t W(std::u16string_view text) { return zel::wstring_t(text); }

// A record as the scan would store it: path, name, hash and category keys.
inline tov::ApplicationInfo App(tov::ApplicationId id, std::u16string_view name,
                                std::initializer_list<std::u16string_view> keys = {}) {
  tov::ApplicationInfo info;
  info.id = id;
  info.fileName = W(name);
  info.filePath = W(std::u16string(u"/usr/bin/") + std::u16string(name));
  info.fileHash = W(u"0f1e2d3c4b5a69788796a5b4c3d2e1f00f1e2d3c4b5a69788796a5b4c3d2e1f0");
  info.fileSize = 4096 + id;
  info.ownerUid = 0;
  for (std::u16string_view key : keys) info.categoryKeys.push_back(tov::CategoryKey{tov::kScanCategoryKind, W(key)});
  return info;
}

}  // namespace testsupport
