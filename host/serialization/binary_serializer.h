// host::BinarySerializer: the host's zel::IBinarySerializer. Records become
// the compact, versioned and checksummed binary form of
// internal/binary_codec.h, driven only by their descriptors; nested records
// and typed variant values are found through the meta-information provider.
//
// Failures come back as codes with a check line through the tracer (when one
// was given); the caller's outputs and record are untouched on failure.
// Stateless apart from the test hooks, so any thread may call it.
#pragma once

#include <atomic>
#include <vector>

#include "host/serialization/internal/ref_counted.h"
#include "host/services/host_object.h"
#include "zel/itracer.h"
#include "zel/rtl/objclient.h"
#include "zel/serialization/imeta_info.h"
#include "zel/serialization/iserializers.h"

namespace host {

class BinarySerializer final : public HeapObject<BinarySerializer, zel::IBinarySerializer> {
 public:
  // `allocator` makes the typed objects that variants own after reading;
  // `tracer` may be null.
  static zel::RefPtr<BinarySerializer> Create(zel::IMetaInfoProvider* meta, zel::IAllocator* allocator,
                                              zel::ITracer* tracer);

  zel::result_t GetSerializedSize(const zel::anydescrptr& data, std::uint32_t& len,
                                  zel::SerializationMode mode) override;
  zel::result_t Serialize(const zel::anydescrptr& data, zel::IAllocator* alloc, unsigned char** ptr,
                          std::uint32_t& len, zel::SerializationMode mode) override;
  // On entry `len` is the buffer's size; 0x80000044 when the record needs more.
  zel::result_t SerializeTo(const zel::anydescrptr& data, unsigned char* buffer, std::uint32_t& len,
                            zel::SerializationMode mode) override;
  zel::result_t Deserialize(const zel::byte_range_t& blob, const zel::anydescrptr& data, std::uint32_t& len,
                            zel::SerializationMode mode) override;

  // ---- test hooks -------------------------------------------------------------
  // The next Serialize / SerializeTo / GetSerializedSize, or the next
  // Deserialize, fails with `code` before doing anything.
  void FailNextSerialize(zel::result_t code = zel::result::Unexpected) noexcept { m_failSerialize.Arm(code); }
  void FailNextDeserialize(zel::result_t code = zel::result::Unexpected) noexcept { m_failDeserialize.Arm(code); }
  // Fuzzing only: accept payloads whose checksum does not match.
  void SetVerifyChecksum(bool on) noexcept { m_verifyChecksum.store(on, std::memory_order_relaxed); }

 private:
  friend class host::HeapAccess;
  BinarySerializer(zel::IMetaInfoProvider* meta, zel::IAllocator* allocator, zel::ITracer* tracer);
  ~BinarySerializer() = default;

  zel::result_t Encode(const zel::anydescrptr& data, std::vector<unsigned char>& out);

  zel::RefPtr<zel::IMetaInfoProvider> m_meta;
  zel::RefPtr<zel::IAllocator> m_allocator;
  zel::RefPtr<zel::ITracer> m_tracer;
  serialization_detail::FailNext m_failSerialize;
  serialization_detail::FailNext m_failDeserialize;
  std::atomic<bool> m_verifyChecksum{true};
};

}  // namespace host
