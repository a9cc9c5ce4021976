#include "host/serialization/storage_serializer.h"

#include "host/serialization/internal/xml_codec.h"
#include "host/serialization/internal/xml_node.h"
#include "host/services/fault_switchboard.h"
#include "zel/rtl/error_handling/checks.h"

namespace host {
namespace {

const char* NameOf(const zel::anydescrptr& data) noexcept {
  const zel::TypeDescriptor* d = data.descriptor();
  return d != nullptr && d->name != nullptr ? d->name : "?";
}

zel::result_t CheckData(const zel::anydescrptr& data) noexcept {
  return data.IsValid() && data.descriptor() != nullptr ? zel::result::NoError : zel::result::InvalidArgument;
}

// The XML element behind `node`: 0x80000046 for no node, 0x80000042 for a
// node that is not one of ours.
zel::result_t ElementOf(zel::IStorageNode* node, serialization_detail::XmlNode** out) noexcept {
  if (node == nullptr) return zel::result::InvalidArgument;
  *out = serialization_detail::AsXmlNode(node);
  return *out != nullptr ? zel::result::NoError : zel::result::NotSupported;
}

}  // namespace

zel::RefPtr<StorageSerializer> StorageSerializer::Create(zel::IMetaInfoProvider* meta, zel::IAllocator* allocator,
                                                         zel::ITracer* tracer) {
  return MakeHeapObject<StorageSerializer>(meta, allocator, tracer);
}

StorageSerializer::StorageSerializer(zel::IMetaInfoProvider* meta, zel::IAllocator* allocator, zel::ITracer* tracer)
    : m_meta(meta), m_allocator(allocator), m_tracer(tracer) {}

zel::result_t StorageSerializer::Serialize(const zel::anydescrptr& data, zel::IStorageNode* node, std::uint32_t flags,
                                           void* /*context*/) {
  if (const zel::result_t fault = FaultAt(FaultPoint::StorageSerialize)) return fault;
  zel::ITracer* tracer = m_tracer.Get();
  try {
    ZEL_CHECK_RESULT_LOG_RETURN(tracer, m_failSerialize.Take(), "Injected failure");
    ZEL_CHECK_RESULT_LOG_RETURN(tracer, CheckData(data), "Data refers to nullptr");
    if (flags != 0) return zel::result::NotSupported;
    serialization_detail::XmlNode* xml = nullptr;
    ZEL_CHECK_RESULT_LOG_RETURN(tracer, ElementOf(node, &xml), "No XML storage node");
    ZEL_CHECK_BOOL_LOG_RETURN(tracer, !xml->ReadOnly(), zel::result::AccessDenied, "The storage is read-only");
    ZEL_CHECK_RESULT_LOG_RETURN(
        tracer, serialization_detail::EncodeXml(m_meta.Get(), data.descriptor(), data.get(), xml->Element()),
        "Cannot write record " << NameOf(data));
    return zel::result::NoError;
  } catch (...) {
    return zel::ResultFromCurrentException(tracer, "StorageSerializer::Serialize: ");
  }
}

zel::result_t StorageSerializer::Deserialize(const zel::anydescrptr& data, zel::IStorageNode* node, Flags flags,
                                             void* /*context*/) {
  if (const zel::result_t fault = FaultAt(FaultPoint::StorageSerialize)) return fault;
  zel::ITracer* tracer = m_tracer.Get();
  try {
    ZEL_CHECK_RESULT_LOG_RETURN(tracer, m_failDeserialize.Take(), "Injected failure");
    ZEL_CHECK_RESULT_LOG_RETURN(tracer, CheckData(data), "Data refers to nullptr");
    if (flags != Flags::Default) return zel::result::NotSupported;
    serialization_detail::XmlNode* xml = nullptr;
    ZEL_CHECK_RESULT_LOG_RETURN(tracer, ElementOf(node, &xml), "No XML storage node");
    ZEL_CHECK_RESULT_LOG_RETURN(tracer,
                                serialization_detail::DecodeXml(m_meta.Get(), m_allocator.Get(), data.descriptor(),
                                                                xml->Element(), data.get()),
                                "Cannot read record " << NameOf(data) << " from <" << xml->Element().name() << ">");
    return zel::result::NoError;
  } catch (...) {
    return zel::ResultFromCurrentException(tracer, "StorageSerializer::Deserialize: ");
  }
}

}  // namespace host
