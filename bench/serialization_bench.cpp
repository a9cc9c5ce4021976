// The host's serialisers through the blob tools: binary and XML form of an
// ApplicationIds with 100k ids, and of 10k records shaped like inventory
// entries (paths, names, numbers, a vector of ids). Throughput is reported
// against the size of the serialised form.
#include <benchmark/benchmark.h>

#include <cstddef>
#include <cstdint>
#include <string>

#include "app_control/application_ids.h"
#include "zel/serialization/field_types.h"
#include "host/serialization/serialization_services.h"
#include "host/services/collecting_tracer.h"
#include "host/services/counting_allocator.h"
#include "host/services/service_locator.h"
#include "tov_common/blob_tools.h"
#include "zel/serialization/ser_obj_descriptor.h"

namespace {

struct Entry {
  static constexpr std::uint32_t SerId = 0x7E57B001;
  zel::string_t path;
  zel::wstring_t name;
  zel::string_t hash;
  std::uint64_t size = 0;
  std::uint32_t flags = 0;
  std::int64_t modified = 0;
  zel::types::vector_t<std::uint64_t> categories;
};

struct Inventory {
  static constexpr std::uint32_t SerId = 0x7E57B002;
  zel::types::vector_t<Entry> entries;
};

namespace st = host::ser_type;
zel::SerObjDescriptorImpl<Entry> g_entryHelper;
zel::SerObjDescriptorImpl<Inventory> g_inventoryHelper;
zel::SerVectorHelperImpl<zel::types::vector_t<std::uint64_t>> g_idsHelper;
zel::SerVectorHelperImpl<zel::types::vector_t<Entry>> g_entriesHelper;

zel::TypeDescriptorField g_entryRows[] = {
    st::Row(st::String, "path", offsetof(Entry, path), sizeof(zel::string_t)),
    st::Row(st::WString, "name", offsetof(Entry, name), sizeof(zel::wstring_t)),
    st::Row(st::String, "hash", offsetof(Entry, hash), sizeof(zel::string_t)),
    st::Row(st::UInt64, "size", offsetof(Entry, size), 8),
    st::Row(st::UInt32, "flags", offsetof(Entry, flags), 4),
    st::Row(st::Int64, "modified", offsetof(Entry, modified), 8),
    st::Row(st::UInt64, "categories", offsetof(Entry, categories), sizeof(Entry::categories),
            zel::ser_field_flags::Vector, &g_idsHelper),
    zel::kFieldTableTerminator,
};
zel::TypeDescriptorField g_inventoryRows[] = {
    st::Row(st::Record, "entries", offsetof(Inventory, entries), sizeof(Inventory::entries),
            zel::ser_field_flags::Vector, &g_entriesHelper, Entry::SerId),
    zel::kFieldTableTerminator,
};
zel::TypeDescriptor g_entryDescriptor{Entry::SerId, "Entry", sizeof(Entry), g_entryRows, &g_entryHelper};
zel::TypeDescriptor g_inventoryDescriptor{Inventory::SerId, "Inventory", sizeof(Inventory), g_inventoryRows,
                                          &g_inventoryHelper};

struct Services {
  Services() {
    locator.Register<zel::ITracer>(&tracer);
    locator.Register<zel::IAllocator>(&allocator);
    services = host::RegisterSerializationServices(locator);
    services.metaInfo->RegisterDescriptor(zel::StaticTypeDescriptor<tov::app_control::ApplicationIds>::Get());
    services.metaInfo->RegisterDescriptor(&g_entryDescriptor);
    services.metaInfo->RegisterDescriptor(&g_inventoryDescriptor);
  }
  host::CollectingTracer tracer{0};
  host::CountingAllocator allocator;
  host::ServiceLocator locator;
  host::SerializationServices services;
};

Services& TheServices() {
  static Services services;
  return services;
}

tov::app_control::ApplicationIds MakeIds() {
  tov::app_control::ApplicationIds ids;
  for (std::uint64_t i = 0; i < 100000; ++i) ids.list.push_back(0x9E3779B97F4A7C15ull * (i + 1));
  return ids;
}

Inventory MakeInventory() {
  Inventory inventory;
  for (int i = 0; i < 10000; ++i) {
    Entry& e = inventory.entries.emplace_back();
    const std::string n = std::to_string(i);
    e.path = zel::string_t("/opt/vendor/application-" + n + "/bin/program");
    const std::u16string wide = u"Application " + std::u16string(n.begin(), n.end());
    e.name = zel::wstring_t(std::u16string_view(wide));
    e.hash = zel::string_t("3f786850e387550fdab836ed7e6dc881de23001b" + n);
    e.size = 1000000u + static_cast<std::uint64_t>(i);
    e.flags = static_cast<std::uint32_t>(i & 7);
    e.modified = 1700000000LL + i;
    for (std::uint64_t k = 0; k < 4; ++k) e.categories.push_back(0xEAC00500u + k);
  }
  return inventory;
}

using Write = zel::result_t (*)(zel::IServiceLocator*, const zel::anydescrptr&, tools::Blob&);
using Read = zel::result_t (*)(zel::IServiceLocator*, const tools::BlobRange&, const zel::anydescrptr&);

template <class T>
void Serialize(benchmark::State& state, const T& value, const zel::TypeDescriptor* descriptor, Write write) {
  Services& s = TheServices();
  tools::Blob blob;
  for (auto _ : state) {
    if (ZEL_FAILED(write(&s.locator, zel::anydescrptr(const_cast<T*>(&value), descriptor), blob))) {
      state.SkipWithError("serialise failed");
      return;
    }
    benchmark::DoNotOptimize(blob.data());
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * blob.size()));
  state.counters["bytes"] = static_cast<double>(blob.size());
}

template <class T>
void Deserialize(benchmark::State& state, const T& value, const zel::TypeDescriptor* descriptor, Write write,
                 Read read) {
  Services& s = TheServices();
  tools::Blob blob;
  if (ZEL_FAILED(write(&s.locator, zel::anydescrptr(const_cast<T*>(&value), descriptor), blob))) {
    state.SkipWithError("serialise failed");
    return;
  }
  for (auto _ : state) {
    T target;
    if (ZEL_FAILED(read(&s.locator, tools::BlobRange{blob.data(), blob.data() + blob.size()},
                        zel::anydescrptr(&target, descriptor)))) {
      state.SkipWithError("deserialise failed");
      return;
    }
    benchmark::DoNotOptimize(&target);
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * blob.size()));
  state.counters["bytes"] = static_cast<double>(blob.size());
}

const tov::app_control::ApplicationIds& Ids() {
  static const auto ids = MakeIds();
  return ids;
}
const Inventory& TheInventory() {
  static const Inventory inventory = MakeInventory();
  return inventory;
}
const zel::TypeDescriptor* IdsDescriptor() {
  return zel::StaticTypeDescriptor<tov::app_control::ApplicationIds>::Get();
}

void BM_Ids100k_Binary_Serialize(benchmark::State& state) {
  Serialize(state, Ids(), IdsDescriptor(), &tools::AnyToBlob);
}
void BM_Ids100k_Binary_Deserialize(benchmark::State& state) {
  Deserialize(state, Ids(), IdsDescriptor(), &tools::AnyToBlob, &tools::AnyFromBlob);
}
void BM_Ids100k_Xml_Serialize(benchmark::State& state) {
  Serialize(state, Ids(), IdsDescriptor(), &tools::AnyToXmlBlob);
}
void BM_Ids100k_Xml_Deserialize(benchmark::State& state) {
  Deserialize(state, Ids(), IdsDescriptor(), &tools::AnyToXmlBlob, &tools::AnyFromXmlBlob);
}
void BM_Inventory10k_Binary_Serialize(benchmark::State& state) {
  Serialize(state, TheInventory(), &g_inventoryDescriptor, &tools::AnyToBlob);
}
void BM_Inventory10k_Binary_Deserialize(benchmark::State& state) {
  Deserialize(state, TheInventory(), &g_inventoryDescriptor, &tools::AnyToBlob, &tools::AnyFromBlob);
}
void BM_Inventory10k_Xml_Serialize(benchmark::State& state) {
  Serialize(state, TheInventory(), &g_inventoryDescriptor, &tools::AnyToXmlBlob);
}
void BM_Inventory10k_Xml_Deserialize(benchmark::State& state) {
  Deserialize(state, TheInventory(), &g_inventoryDescriptor, &tools::AnyToXmlBlob, &tools::AnyFromXmlBlob);
}

BENCHMARK(BM_Ids100k_Binary_Serialize)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Ids100k_Binary_Deserialize)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Ids100k_Xml_Serialize)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Ids100k_Xml_Deserialize)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Inventory10k_Binary_Serialize)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Inventory10k_Binary_Deserialize)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Inventory10k_Xml_Serialize)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Inventory10k_Xml_Deserialize)->Unit(benchmark::kMillisecond);

}  // namespace
