#include "host/serialization/serialization_services.h"

#include <cstdlib>

#include "host/services/host_object.h"

namespace host {
namespace {

// Stands in for a host allocator when the locator has none. Static and
// uncounted: it outlives everything that may hold it.
class MallocAllocator final : public OwnedObject<MallocAllocator, zel::IAllocator> {
 public:
  void* Alloc(std::size_t size) override { return std::malloc(size == 0 ? 1 : size); }
  void* Realloc(void* pointer, std::size_t size) override { return std::realloc(pointer, size == 0 ? 1 : size); }
  void Free(void* pointer) override { std::free(pointer); }
};

MallocAllocator g_mallocAllocator;

}  // namespace

SerializationServices RegisterSerializationServices(ServiceLocator& locator) {
  zel::RefPtr<zel::ITracer> tracer;
  zel::RefPtr<zel::IAllocator> allocator;
  (void)zel::GetInterface(&locator, tracer.Ref());
  if (ZEL_FAILED(zel::GetInterface(&locator, allocator.Ref()))) allocator = zel::RefPtr<zel::IAllocator>(&g_mallocAllocator);

  SerializationServices services;
  services.metaInfo = MetaInfoProvider::Create();
  zel::IMetaInfoProvider* meta = services.metaInfo.Get();
  services.binary = BinarySerializer::Create(meta, allocator.Get(), tracer.Get());
  services.xmlFactory = XmlStorageFactory::Create(tracer.Get());
  services.storage = StorageSerializer::Create(meta, allocator.Get(), tracer.Get());

  locator.Register<zel::IMetaInfoProvider>(meta);
  locator.Register<zel::IStructMetaInfoRegistry>(services.metaInfo.Get());
  locator.Register<zel::IBinarySerializer>(services.binary.Get());
  locator.Register<zel::IXmlStorageFactory>(services.xmlFactory.Get());
  locator.Register<zel::IStorageSerializer2>(services.storage.Get());
  return services;
}

}  // namespace host
