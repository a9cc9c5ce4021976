// Fuzzes the way back from bytes to records: tools::AnyFromBlob and
// tools::AnyFromXmlBlob through the host's serialisers, into an
// ApplicationIds and (for the variant paths) a tov::RuntimeField. The first
// input byte picks form and record. Whatever is accepted must survive a
// second trip unchanged, and every block must have gone back.
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

namespace {

struct Services {
  Services() {
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

Services& Get() {
  static Services* services = new Services();  // lives to the end of the process
  return *services;
}

using Read = zel::result_t (*)(zel::IServiceLocator*, const tools::BlobRange&, const zel::anydescrptr&);
using Write = zel::result_t (*)(zel::IServiceLocator*, const zel::anydescrptr&, tools::Blob&);

void Check(bool condition) {
  if (!condition) std::abort();
}

template <class T>
void RoundTrip(Services& s, const std::uint8_t* data, std::size_t size, Read read, Write write) {
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

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  Services& s = Get();
  const std::int64_t live = s.allocator.LiveBlocks();
  const std::uint8_t mode = data[0] & 3;
  ++data, --size;
  switch (mode) {
    case 0:
      RoundTrip<tov::app_control::ApplicationIds>(s, data, size, &tools::AnyFromBlob, &tools::AnyToBlob);
      break;
    case 1:
      RoundTrip<tov::app_control::ApplicationIds>(s, data, size, &tools::AnyFromXmlBlob, &tools::AnyToXmlBlob);
      break;
    case 2:
      RoundTrip<tov::RuntimeField>(s, data, size, &tools::AnyFromBlob, &tools::AnyToBlob);
      break;
    default:
      RoundTrip<tov::RuntimeField>(s, data, size, &tools::AnyFromXmlBlob, &tools::AnyToXmlBlob);
      break;
  }
  Check(s.allocator.LiveBlocks() == live);
  return 0;
}
