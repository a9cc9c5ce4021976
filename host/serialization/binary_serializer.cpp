#include "host/serialization/binary_serializer.h"

#include <cstring>
#include <new>

#include "host/serialization/internal/binary_codec.h"
#include "zel/rtl/error_handling/checks.h"

namespace host {
namespace {

const char* NameOf(const zel::anydescrptr& data) noexcept {
  const zel::TypeDescriptor* d = data.descriptor();
  return d != nullptr && d->name != nullptr ? d->name : "?";
}

// A record the serialiser can work on: an object with a descriptor.
zel::result_t CheckData(const zel::anydescrptr& data) noexcept {
  return data.IsValid() && data.descriptor() != nullptr ? zel::result::NoError : zel::result::InvalidArgument;
}

}  // namespace

zel::RefPtr<BinarySerializer> BinarySerializer::Create(zel::IMetaInfoProvider* meta, zel::IAllocator* allocator,
                                                       zel::ITracer* tracer) {
  return MakeHeapObject<BinarySerializer>(meta, allocator, tracer);
}

BinarySerializer::BinarySerializer(zel::IMetaInfoProvider* meta, zel::IAllocator* allocator, zel::ITracer* tracer)
    : m_meta(meta), m_allocator(allocator), m_tracer(tracer) {}

zel::result_t BinarySerializer::Encode(const zel::anydescrptr& data, std::vector<unsigned char>& out) {
  zel::ITracer* tracer = m_tracer.Get();
  ZEL_CHECK_RESULT_LOG_RETURN(tracer, m_failSerialize.Take(), "Injected failure");
  ZEL_CHECK_RESULT_LOG_RETURN(tracer, CheckData(data), "Data refers to nullptr");
  ZEL_CHECK_RESULT_LOG_RETURN(tracer,
                              serialization_detail::EncodeBinary(m_meta.Get(), data.descriptor(), data.get(), out),
                              "Cannot write record " << NameOf(data));
  return zel::result::NoError;
}

zel::result_t BinarySerializer::GetSerializedSize(const zel::anydescrptr& data, std::uint32_t& len,
                                                  zel::SerializationMode mode) {
  try {
    if (mode != 0) return zel::result::NotSupported;
    std::vector<unsigned char> out;
    if (const zel::result_t r = Encode(data, out); ZEL_FAILED(r)) return r;
    len = static_cast<std::uint32_t>(out.size());
    return zel::result::NoError;
  } catch (...) {
    return zel::ResultFromCurrentException(m_tracer.Get(), "BinarySerializer::GetSerializedSize: ");
  }
}

zel::result_t BinarySerializer::Serialize(const zel::anydescrptr& data, zel::IAllocator* alloc, unsigned char** ptr,
                                          std::uint32_t& len, zel::SerializationMode mode) {
  try {
    if (mode != 0) return zel::result::NotSupported;
    ZEL_CHECK_BOOL_LOG_RETURN(m_tracer.Get(), alloc != nullptr && ptr != nullptr, zel::result::InvalidArgument);
    std::vector<unsigned char> out;
    if (const zel::result_t r = Encode(data, out); ZEL_FAILED(r)) return r;
    auto* buffer = static_cast<unsigned char*>(alloc->Alloc(out.size()));
    ZEL_CHECK_BOOL_LOG_RETURN(m_tracer.Get(), buffer != nullptr, zel::result::OutOfMemory, "Cannot allocate "
                                                                                      << out.size() << " bytes");
    std::memcpy(buffer, out.data(), out.size());
    *ptr = buffer;
    len = static_cast<std::uint32_t>(out.size());
    return zel::result::NoError;
  } catch (...) {
    return zel::ResultFromCurrentException(m_tracer.Get(), "BinarySerializer::Serialize: ");
  }
}

zel::result_t BinarySerializer::SerializeTo(const zel::anydescrptr& data, unsigned char* buffer, std::uint32_t& len,
                                            zel::SerializationMode mode) {
  try {
    if (mode != 0) return zel::result::NotSupported;
    std::vector<unsigned char> out;
    if (const zel::result_t r = Encode(data, out); ZEL_FAILED(r)) return r;
    ZEL_CHECK_BOOL_LOG_RETURN(m_tracer.Get(), buffer != nullptr && out.size() <= len, zel::result::BufferTooSmall,
                              "Record needs " << out.size() << " bytes");
    std::memcpy(buffer, out.data(), out.size());
    len = static_cast<std::uint32_t>(out.size());
    return zel::result::NoError;
  } catch (...) {
    return zel::ResultFromCurrentException(m_tracer.Get(), "BinarySerializer::SerializeTo: ");
  }
}

zel::result_t BinarySerializer::Deserialize(const zel::byte_range_t& blob, const zel::anydescrptr& data,
                                            std::uint32_t& len, zel::SerializationMode mode) {
  try {
    if (mode != 0) return zel::result::NotSupported;
    zel::ITracer* tracer = m_tracer.Get();
    ZEL_CHECK_RESULT_LOG_RETURN(tracer, m_failDeserialize.Take(), "Injected failure");
    ZEL_CHECK_RESULT_LOG_RETURN(tracer, CheckData(data), "Data refers to nullptr");
    serialization_detail::BinaryOptions options;
    options.verifyChecksum = m_verifyChecksum.load(std::memory_order_relaxed);
    const std::size_t size = blob.first == nullptr ? 0 : static_cast<std::size_t>(blob.last - blob.first);
    std::uint32_t consumed = 0;
    ZEL_CHECK_RESULT_LOG_RETURN(tracer,
                                serialization_detail::DecodeBinary(m_meta.Get(), m_allocator.Get(), data.descriptor(),
                                                                   blob.first, size, data.get(), options, &consumed),
                                "Cannot read record " << NameOf(data) << " from " << size << " bytes");
    len = consumed;
    return zel::result::NoError;
  } catch (...) {
    return zel::ResultFromCurrentException(m_tracer.Get(), "BinarySerializer::Deserialize: ");
  }
}

}  // namespace host
