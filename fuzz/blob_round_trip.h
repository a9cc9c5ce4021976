// Shared by the blob fuzz targets: the host's serialisers in one locator that
// lives for the whole run, and the round trip each target drives through
// tools::AnyFromBlob / tools::AnyFromXmlBlob. The first input byte picks the
// record (an ApplicationIds, or a tov::RuntimeField for the variant paths);
// the rest is the blob. Whatever is accepted must survive a second trip
// unchanged, and every block must have gone back.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include "app_control/application_ids.h"
#include "host/serialization/serialization_services.h"
#include "host/services/collecting_tracer.h"
#include "host/services/counting_allocator.h"
#include "host/services/service_locator.h"
#include "tov_common/blob_tools.h"
#include "tov_common/runtime_field.h"

namespace fuzz {

struct BlobServices {
  BlobServices() {
    locator.Register<zel::ITracer>(&tracer);
    locator.Register<zel::IAllocator>(&allocator);
    services = host::RegisterSerializationServices(locator);
    // A checksum would stop the fuzzer at the header; the decoder behind it
    // is what is under test.
    services.binary->SetVerifyChecksum(false);
    services.metaInfo->RegisterDescriptor(zel::StaticTypeDescriptor<tov::app_control::ApplicationIds>::Get());
    services.metaInfo->RegisterDescriptor(zel::StaticTypeDescriptor<tov::RuntimeField>::Get());
    services.metaInfo->RegisterDescriptor(zel::StaticTypeDescriptor<tov::AdditionalField>::Get());
  }
  host::CollectingTracer tracer{0};  // refuses every line: the check sites still run their tests
  host::CountingAllocator allocator;
  host::ServiceLocator locator;
  host::SerializationServices services;
};

inline BlobServices& GetBlobServices() {
  static BlobServices* services = new BlobServices();  // lives to the end of the process
  return *services;
}

using BlobRead = zel::result_t (*)(zel::IServiceLocator*, const tools::BlobRange&, const zel::anydescrptr&);
using BlobWrite = zel::result_t (*)(zel::IServiceLocator*, const zel::anydescrptr&, tools::Blob&);

inline void Check(bool condition) {
  if (!condition) std::abort();
}

template <class T>
void BlobRoundTrip(BlobServices& s, const std::uint8_t* data, std::size_t size, BlobRead read, BlobWrite write) {
  const zel::TypeDescriptor* descriptor = zel::StaticTypeDescriptor<T>::Get();
  T value;
  if (ZEL_FAILED(read(&s.locator, tools::BlobRange{data, data + size}, zel::anydescrptr(&value, descriptor)))) return;
  // Accepted input: writing it and reading that back must be a fixed point.
  tools::Blob first;
  Check(ZEL_SUCCEEDED(write(&s.locator, zel::anydescrptr(&value, descriptor), first)));
  T again;
  Check(ZEL_SUCCEEDED(
      read(&s.locator, tools::BlobRange{first.data(), first.data() + first.size()}, zel::anydescrptr(&again, descriptor))));
  tools::Blob second;
  Check(ZEL_SUCCEEDED(write(&s.locator, zel::anydescrptr(&again, descriptor), second)));
  Check(first == second);
}

// One fuzz input: record picked by the first byte, the rest through read/write.
inline int RunBlobInput(const std::uint8_t* data, std::size_t size, BlobRead read, BlobWrite write) {
  if (size == 0) return 0;
  BlobServices& s = GetBlobServices();
  const std::int64_t live = s.allocator.LiveBlocks();
  const bool field = (data[0] & 1) != 0;
  ++data, --size;
  if (field)
    BlobRoundTrip<tov::RuntimeField>(s, data, size, read, write);
  else
    BlobRoundTrip<tov::app_control::ApplicationIds>(s, data, size, read, write);
  Check(s.allocator.LiveBlocks() == live);
  return 0;
}

}  // namespace fuzz
