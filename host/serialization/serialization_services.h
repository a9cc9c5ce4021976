// The reference host's serialisation services in one step: the
// meta-information provider (both lookup interfaces), the binary serialiser,
// the XML storage factory and the XML storage serialiser, made and registered
// in a host::ServiceLocator under service key 0.
//
// Host features register their records with
//   services.metaInfo->RegisterDescriptor(&descriptor);
// a loaded module's own registry joins with RegisterProvider.
#pragma once

#include "host/serialization/binary_serializer.h"
#include "host/serialization/meta_info_provider.h"
#include "host/serialization/storage_serializer.h"
#include "host/serialization/xml_storage.h"
#include "host/services/service_locator.h"

namespace host {

// References to the registered objects, for registration of descriptors and
// for the test hooks. The locator keeps its own references.
struct SerializationServices {
  zel::RefPtr<MetaInfoProvider> metaInfo;
  zel::RefPtr<BinarySerializer> binary;
  zel::RefPtr<XmlStorageFactory> xmlFactory;
  zel::RefPtr<StorageSerializer> storage;
};

// Takes the locator's ITracer and IAllocator when it has them (a missing
// allocator means malloc and free for objects made while reading), then
// registers IMetaInfoProvider, IStructMetaInfoRegistry, IBinarySerializer,
// IXmlStorageFactory and IStorageSerializer2. May throw std::bad_alloc.
SerializationServices RegisterSerializationServices(ServiceLocator& locator);

}  // namespace host
