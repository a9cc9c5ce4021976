// host::StorageSerializer: the host's zel::IStorageSerializer2. Writes a
// record as XML elements under a node made by host::XmlStorageFactory (the
// form of internal/xml_codec.h) and reads it back, driven only by the
// record's descriptor. Nodes of other storage kinds are refused (0x80000042),
// as is a null node (0x80000046).
//
// Failures come back as codes with a check line through the tracer (when one
// was given); the record is untouched when reading fails, and the node keeps
// no half-written fields when writing fails.
#pragma once

#include "host/serialization/internal/ref_counted.h"
#include "host/services/host_object.h"
#include "zel/itracer.h"
#include "zel/rtl/objclient.h"
#include "zel/serialization/imeta_info.h"
#include "zel/serialization/iserializers.h"

namespace host {

class StorageSerializer final : public HeapObject<StorageSerializer, zel::IStorageSerializer2> {
 public:
  // `allocator` makes the typed objects that variants own after reading;
  // `tracer` may be null.
  static zel::RefPtr<StorageSerializer> Create(zel::IMetaInfoProvider* meta, zel::IAllocator* allocator,
                                               zel::ITracer* tracer);

  zel::result_t Serialize(const zel::anydescrptr& data, zel::IStorageNode* node, std::uint32_t flags,
                          void* context) override;
  zel::result_t Deserialize(const zel::anydescrptr& data, zel::IStorageNode* node, Flags flags,
                            void* context) override;

  // ---- test hooks -------------------------------------------------------------
  void FailNextSerialize(zel::result_t code = zel::result::Unexpected) noexcept { m_failSerialize.Arm(code); }
  void FailNextDeserialize(zel::result_t code = zel::result::Unexpected) noexcept { m_failDeserialize.Arm(code); }

 private:
  friend class host::HeapAccess;
  StorageSerializer(zel::IMetaInfoProvider* meta, zel::IAllocator* allocator, zel::ITracer* tracer);
  ~StorageSerializer() = default;

  zel::RefPtr<zel::IMetaInfoProvider> m_meta;
  zel::RefPtr<zel::IAllocator> m_allocator;
  zel::RefPtr<zel::ITracer> m_tracer;
  serialization_detail::FailNext m_failSerialize;
  serialization_detail::FailNext m_failDeserialize;
};

}  // namespace host
