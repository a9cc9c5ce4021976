// The inventory storage on the real SQLite key-value store in a temporary
// file: a scan's write path (100k AddInfo and one Flush), one reader taking
// the whole 100k list, and a paging reader taking 1000 ids at a time.
// Tracing is at level 300 only, as a host runs in production.
#include <benchmark/benchmark.h>
#include <time.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>

#include "app_control/application_ids.h"
#include "app_control/interfaces/iinventory_info_provider.h"
#include "app_control/interfaces/iinventory_storage.h"
#include "app_control/module_entry.h"
#include "host/serialization/serialization_services.h"
#include "host/services/collecting_tracer.h"
#include "host/services/counting_allocator.h"
#include "host/services/host_object.h"
#include "host/services/service_locator.h"
#include "host/storage/key_value_store.h"
#include "tov_common/blob_tools.h"
#include "tov_common/inventory/application_info.h"
#include "tov_utils/interfaces/iservice_manager.h"
#include "zel/serialization/iserializers.h"
#include "zel/util/rtl_impl/anyptr_helpers.h"

namespace {

constexpr std::size_t kApplications = 100000;

// No engine settings stored: category names resolve to GoldenImage or the key.
class NoSettings final : public host::OwnedObject<NoSettings, app_core::facade::IServiceManager> {
 public:
  zel::result_t GetServiceSettings(std::uint32_t, app_core::facade::SettingsHolder*) override { return 1; }
  zel::result_t SetServiceSettings(std::uint32_t, std::uint32_t, const app_core::facade::SettingsHolder*) override {
    return zel::result::NotImplemented;
  }
  zel::result_t GetServiceSettingsRevision(std::uint32_t, std::uint32_t* revision) override {
    *revision = 0;
    return 0;
  }
  zel::result_t GetServiceSettings2(std::uint32_t, app_core::facade::SettingsHolder*, std::uint32_t* revision) override {
    *revision = 0;
    return 1;
  }
  zel::result_t HasServiceSettings(std::uint32_t) override { return 1; }
  zel::result_t UpdateServiceSettings2(std::uint32_t, std::uint32_t, const app_core::facade::SettingsHolder*,
                                       std::uint32_t) override {
    return zel::result::NotImplemented;
  }
  zel::result_t RemoveServiceSettings(std::uint32_t) override { return 1; }
  zel::result_t FlushSettings() override { return 0; }
};

struct Host {
  Host() : dir(MakeDir()) {
    locator.Register<zel::IAllocator>(&allocator);
    locator.Register<zel::ITracer>(&tracer);
    services = host::RegisterSerializationServices(locator);
    services.metaInfo->RegisterDescriptor(zel::StaticTypeDescriptor<tov::app_control::ApplicationIds>::Get());
    for (const zel::TypeDescriptor* d : tov::InventoryRecordDescriptors()) services.metaInfo->RegisterDescriptor(d);
    locator.Register<app_core::facade::IServiceManager>(&settings);
    store.Open(dir + "/state.db");
    locator.Register<app_core::component::IKeyValueStorage>(&store);
  }
  ~Host() {
    for (zel::iid_t iid : {app_core::component::IKeyValueStorage::iid, app_core::facade::IServiceManager::iid,
                           zel::IMetaInfoProvider::iid, zel::IStructMetaInfoRegistry::iid, zel::IBinarySerializer::iid,
                           zel::IXmlStorageFactory::iid, zel::IStorageSerializer2::iid, zel::ITracer::iid,
                           zel::IAllocator::iid}) {
      locator.Remove(iid);
    }
    store.Close();
    std::filesystem::remove_all(dir);
  }
  static std::string MakeDir() {
    char pattern[] = "/tmp/inventory_bench_XXXXXX";
    return mkdtemp(pattern);
  }

  zel::RefPtr<tov::app_control::IInventoryStorage> Create() {
    zel::IObjectFactory* factory = nullptr;
    tov::app_control::GetObjectFactory(&locator, tov::app_control::kInventoryStorageClassId, &factory);
    void* out = nullptr;
    factory->CreateInstance(&locator, tov::app_control::IInventoryStorage::iid, &out);
    factory->Release();
    return zel::RefPtr<tov::app_control::IInventoryStorage>::Adopt(
        static_cast<tov::app_control::IInventoryStorage*>(out));
  }

  std::string dir;
  host::CountingAllocator allocator;
  host::CollectingTracer tracer{zel::trace_level::Error};
  NoSettings settings;
  host::KeyValueStore store;
  host::ServiceLocator locator;
  host::SerializationServices services;
};

double ThreadCpuSeconds() {
  timespec now{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

// A record as a scan of /usr would give it.
tov::ApplicationInfo Record(tov::ApplicationId id) {
  tov::ApplicationInfo info;
  info.id = id;
  const std::u16string name = u"program" + std::u16string(1, static_cast<char16_t>(u'a' + id % 26));
  info.fileName = zel::wstring_t(name);
  info.filePath = zel::wstring_t(u"/usr/lib/x86_64-linux-gnu/some/package/bin/" + name);
  info.fileHash = zel::wstring_t(u"9f86d081884c7d659a2feaa0c55ad015a3bf4f1b2b0b822cd15d6c15b0f00a08");
  info.fileSize = 1000 + id;
  info.categoryKeys.push_back(tov::CategoryKey{tov::kScanCategoryKind, zel::wstring_t(u"eac00500-0000-0000-0000-000000000000")});
  return info;
}

void BM_AddInfo100kAndFlush(benchmark::State& state) {
  using Clock = std::chrono::steady_clock;
  double addSeconds = 0;
  double flushSeconds = 0;
  double addCpuSeconds = 0;
  double flushCpuSeconds = 0;
  for (auto _ : state) {
    state.PauseTiming();
    auto host = std::make_unique<Host>();
    auto storage = host->Create();
    std::vector<tov::ApplicationInfo> records;
    records.reserve(kApplications);
    for (std::size_t i = 0; i < kApplications; ++i) records.push_back(Record(i + 1));
    state.ResumeTiming();

    const auto started = Clock::now();
    const double startedCpu = ThreadCpuSeconds();
    for (const auto& r : records) benchmark::DoNotOptimize(storage->AddInfo(r));
    const auto added = Clock::now();
    const double addedCpu = ThreadCpuSeconds();
    if (storage->Flush() != 0) state.SkipWithError("Flush failed");
    const auto flushed = Clock::now();
    addSeconds += std::chrono::duration<double>(added - started).count();
    flushSeconds += std::chrono::duration<double>(flushed - added).count();
    addCpuSeconds += addedCpu - startedCpu;
    flushCpuSeconds += ThreadCpuSeconds() - addedCpu;

    state.PauseTiming();
    storage = nullptr;
    std::uintmax_t bytes = 0;
    for (const auto& entry : std::filesystem::directory_iterator(host->dir)) bytes += entry.file_size();
    state.counters["store_MB"] = static_cast<double>(bytes) / 1e6;
    host.reset();
    state.ResumeTiming();
  }
  state.SetItemsProcessed(state.iterations() * kApplications);
  // Wall and CPU time of the two phases, averaged over the iterations: on a
  // shared machine the CPU figures say more about the code.
  const auto perIteration = [&](double seconds) {
    return benchmark::Counter(seconds * 1e3, benchmark::Counter::kAvgIterations);
  };
  state.counters["add_ms"] = perIteration(addSeconds);
  state.counters["add_cpu_ms"] = perIteration(addCpuSeconds);
  state.counters["flush_ms"] = perIteration(flushSeconds);
  state.counters["flush_cpu_ms"] = perIteration(flushCpuSeconds);
}
BENCHMARK(BM_AddInfo100kAndFlush)->Unit(benchmark::kMillisecond)->Iterations(2)->UseRealTime();

// What AddInfo spends on one record before the store sees it: the record
// to its XML blob through the host's serialisation services.
void BM_ApplicationInfoToXmlBlob(benchmark::State& state) {
  Host host;
  const tov::ApplicationInfo info = Record(12345);
  const zel::anydescrptr any = zel::make_anydescrptr(&host.locator, info);
  std::size_t bytes = 0;
  for (auto _ : state) {
    tools::Blob blob;
    if (tools::AnyToXmlBlob(&host.locator, any, blob) != 0) state.SkipWithError("AnyToXmlBlob failed");
    benchmark::DoNotOptimize(blob.data());
    bytes = blob.size();
  }
  state.SetItemsProcessed(state.iterations());
  // The row the store keeps per record: its size drives the Commit's cost.
  state.counters["record_bytes"] = static_cast<double>(bytes);
}
BENCHMARK(BM_ApplicationInfoToXmlBlob)->Unit(benchmark::kMicrosecond);

// One filled inventory shared by the readers.
struct Filled {
  Filled() : storage(host.Create()) {
    for (std::size_t i = 0; i < kApplications; ++i) storage->AddInfo(Record(i + 1));
    storage->Flush();
    void* face = nullptr;
    storage->QueryInterface(tov::IInventoryInfoProvider::iid, &face);
    reader = zel::RefPtr<tov::IInventoryInfoProvider>::Adopt(static_cast<tov::IInventoryInfoProvider*>(face));
  }
  Host host;
  zel::RefPtr<tov::app_control::IInventoryStorage> storage;
  zel::RefPtr<tov::IInventoryInfoProvider> reader;
};
Filled& TheFilled() {
  static Filled* filled = new Filled();  // lives to the end of the program
  return *filled;
}

void BM_GetApplicationList100k(benchmark::State& state) {
  auto* reader = TheFilled().reader.Get();
  for (auto _ : state) {
    tov::ApplicationList list;
    if (reader->GetApplicationList(list) != 0 || list.list.size() != kApplications) state.SkipWithError("bad list");
    benchmark::DoNotOptimize(list.list.data());
  }
  state.SetItemsProcessed(state.iterations() * kApplications);
}
BENCHMARK(BM_GetApplicationList100k)->Unit(benchmark::kMillisecond)->Iterations(2)->UseRealTime();

void BM_GetApplicationIdListPage1000(benchmark::State& state) {
  auto* reader = TheFilled().reader.Get();
  std::uint64_t from = 0;
  for (auto _ : state) {
    tov::ApplicationIdList page;
    if (reader->GetApplicationIdList(from, 1000, page) != 0 || page.size() != 1000) state.SkipWithError("bad page");
    benchmark::DoNotOptimize(page.data());
    from = (from + 1000) % kApplications;
  }
  state.SetItemsProcessed(state.iterations() * 1000);
}
BENCHMARK(BM_GetApplicationIdListPage1000)->Unit(benchmark::kMicrosecond);

}  // namespace
