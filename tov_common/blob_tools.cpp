#include "tov_common/blob_tools.h"

#include <algorithm>
#include <cstring>

#include "tov_common/detail/interface_ptr.h"
#include "zel/iallocator.h"
#include "zel/itracer.h"
#include "zel/rtl/error_handling/checks.h"
#include "zel/rtl/error_handling/exceptions.h"
#include "zel/rtl/objclient.h"
#include "zel/serialization/memory_io.h"

namespace tools {
namespace {

using detail::InterfacePtr;

constexpr zel::SerializationMode SerMode = 0;

// Gives back what Serialize allocated, whatever happens after it.
class SerializedBuffer {
 public:
  explicit SerializedBuffer(zel::IAllocator* allocator) noexcept : m_allocator(allocator) {}
  SerializedBuffer(const SerializedBuffer&) = delete;
  SerializedBuffer& operator=(const SerializedBuffer&) = delete;
  ~SerializedBuffer() {
    if (ptr != nullptr) m_allocator->Free(ptr);
  }
  unsigned char* ptr = nullptr;

 private:
  zel::IAllocator* m_allocator;
};

// `blob` becomes exactly the `len` bytes at `bytes`. Built aside when the
// vector must grow, so that a failure leaves it as it was.
void AssignBytes(Blob& blob, const unsigned char* bytes, std::uint32_t len) {
  if (blob.capacity() < len) {
    Blob fresh(blob.get_allocator());
    fresh.reserve(std::max<std::size_t>(4, len));
    fresh.resize(len);
    std::memcpy(fresh.data(), bytes, len);
    blob.swap(fresh);
    return;
  }
  blob.clear();
  blob.resize(len);
  if (len != 0) std::memcpy(blob.data(), bytes, len);
}

}  // namespace

zel::result_t AnyToBlob(zel::IServiceLocator* sl, const zel::anydescrptr& data, Blob& blob) {
  InterfacePtr<zel::ITracer> tracer;
  zel::GetInterface(sl, tracer.Ref());  // a missing tracer only silences the checks

  ZEL_CHECK_BOOL_LOG_RETURN(tracer, data.IsValid(), zel::result::InvalidArgument, "Data refers to nullptr");

  InterfacePtr<zel::IBinarySerializer> serializer;
  ZEL_CHECK_RESULT_LOG_RETURN(tracer, zel::GetInterface(sl, serializer.Ref()),
                              "Cannot get IBinarySerializer interface");
  InterfacePtr<zel::IAllocator> alloc;
  ZEL_CHECK_RESULT_LOG_RETURN(tracer, zel::GetInterface(sl, alloc.Ref()), "Cannot get IAllocator interface");

  SerializedBuffer out(alloc);
  unsigned char*& ptr = out.ptr;
  std::uint32_t len = 0;
  ZEL_CHECK_RESULT_LOG_RETURN(tracer, serializer->Serialize(data, alloc, &ptr, len, SerMode),
                              "Cannot serialize data");
  if (len != 0 && ptr == nullptr) return zel::result::InvalidArgument;
  AssignBytes(blob, ptr, len);
  return 0;
}

zel::result_t AnyFromBlob(zel::IServiceLocator* sl, const BlobRange& blob, const zel::anydescrptr& data) {
  InterfacePtr<zel::ITracer> tracer;
  zel::GetInterface(sl, tracer.Ref());

  ZEL_CHECK_BOOL_LOG_RETURN(tracer, data.IsValid(), zel::result::InvalidArgument, "Data refers to nullptr");

  InterfacePtr<zel::IBinarySerializer> serializer;
  ZEL_CHECK_RESULT_LOG_RETURN(tracer, zel::GetInterface(sl, serializer.Ref()),
                              "Cannot get IBinarySerializer interface");
  std::uint32_t len = 0;  // what was consumed; not looked at
  ZEL_CHECK_RESULT_LOG_RETURN(tracer, serializer->Deserialize(blob, data, len, SerMode), "Cannot deserialize data");
  return 0;
}

zel::result_t OpenXmlStorage(zel::IServiceLocator* sl, zel::IIO* io, std::uint8_t readOnly, const char* rootName,
                             zel::IStorageNode** node) {
  *node = nullptr;
  InterfacePtr<zel::IXmlStorageFactory> factory;
  const zel::result_t r = zel::GetInterface(sl, factory.Ref());
  if (ZEL_FAILED(r)) return r;

  std::uint64_t size = 0;
  if (io != nullptr) {
    const zel::result_t sr = io->GetSize(&size);
    if (ZEL_FAILED(sr)) return sr;
  }
  // The factory's results don't count: a node or none is what matters, and
  // the serialiser fails on none.
  if (size != 0) {
    static_cast<void>(factory->OpenStorage(io, readOnly, node));
  } else {
    static_cast<void>(factory->CreateStorage(io, rootName, node));
  }
  return 0;
}

zel::result_t AnyToXmlBlob(zel::IServiceLocator* sl, const zel::anydescrptr& data, Blob& result) {
  InterfacePtr<zel::ITracer> tracer;
  zel::GetInterface(sl, tracer);  // throws without a tracer

  // Released in reverse: serialiser, node, stream, then the local bytes.
  Blob buffer;
  InterfacePtr<zel::IIO> io;
  ZEL_CHECK_RESULT_LOG_RETURN(tracer, zel::memory_io::CreateReadWriteIo<zel::memory_io::ExternalStorageTraits>(
                                          buffer, io.Ref()),
                              "Cannot create io from buffer");
  InterfacePtr<zel::IStorageNode> node;
  OpenXmlStorage(sl, io, 0, "root", node.Ref());

  InterfacePtr<zel::IStorageSerializer2> serializer;
  ZEL_CHECK_RESULT_LOG_RETURN(tracer, zel::GetInterface(sl, serializer.Ref()));
  ZEL_CHECK_RESULT_LOG_RETURN(tracer, serializer->Serialize(data, node, 0, 0));
  // A serialiser that claims success without a node leaves nothing to flush.
  if (!node) return zel::result::InvalidArgument;
  ZEL_CHECK_RESULT_LOG_RETURN(tracer, node->Flush());

  buffer.swap(result);
  return 0;
}

zel::result_t AnyFromXmlBlob(zel::IServiceLocator* sl, const BlobRange& blob, const zel::anydescrptr& data) {
  InterfacePtr<zel::ITracer> tracer;
  zel::GetInterface(sl, tracer);  // throws without a tracer

  InterfacePtr<zel::IIO> io;
  ZEL_CHECK_RESULT_LOG_RETURN(tracer, zel::memory_io::CreateReadOnlyIo<zel::memory_io::ExternalStorageTraits>(
                                          blob, io.Ref()),
                              "Cannot create io buffer");
  InterfacePtr<zel::IStorageNode> node;
  OpenXmlStorage(sl, io, 1, "root", node.Ref());

  InterfacePtr<zel::IStorageSerializer2> serializer;
  ZEL_CHECK_RESULT_LOG_RETURN(tracer, zel::GetInterface(sl, serializer.Ref()));
  ZEL_CHECK_RESULT_LOG_RETURN(tracer, serializer->Deserialize(
                                          data, node, zel::IStorageSerializer2::Flags::Default, nullptr));
  return 0;
}

}  // namespace tools
