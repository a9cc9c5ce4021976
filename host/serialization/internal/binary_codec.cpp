#include "host/serialization/internal/binary_codec.h"

#include <bit>
#include <cstring>
#include <limits>
#include <string_view>

#include "zel/serialization/field_types.h"
#include "host/serialization/internal/crc32.h"
#include "host/serialization/internal/descriptor_check.h"
#include "host/serialization/internal/record_walk.h"
#include "host/serialization/internal/variant_access.h"
#include "zel/types/string.h"

static_assert(std::endian::native == std::endian::little, "the binary form is written as the memory holds it");

namespace host::serialization_detail {
namespace {

using zel::result_t;
namespace res = zel::result;

constexpr std::uint32_t kMaxCount = std::numeric_limits<std::uint32_t>::max();

// ---- writing ----------------------------------------------------------------------

class Encoder {
 public:
  Encoder(zel::IMetaInfoProvider* meta, std::vector<unsigned char>& out) : m_meta(meta), m_out(out) {}

  result_t Record(const zel::TypeDescriptor* descriptor, const void* record, int depth) {
    if (depth > kMaxDepth) return res::OutOfRange;
    for (const zel::TypeDescriptorField* row = descriptor->fields; row->flags != zel::kFieldTableEnd; ++row) {
      ValueType type;
      if (const result_t r = ResolveRowType(m_meta, *row, &type); ZEL_FAILED(r)) return r;
      const void* member = MemberOf(record, *row);
      const result_t r = row->flags == zel::ser_field_flags::Vector
                             ? Vector(*row, type, const_cast<void*>(member), depth)
                             : Value(type, member, depth);
      if (ZEL_FAILED(r)) return r;
    }
    return res::NoError;
  }

  result_t Value(const ValueType& type, const void* p, int depth) {
    if (const std::uint32_t fixed = ser_type::FixedSize(type.code); fixed != 0) {
      if (type.code == ser_type::Bool) return U8(*static_cast<const bool*>(p) ? 1 : 0);
      Bytes(p, fixed);
      return res::NoError;
    }
    switch (type.code) {
      case ser_type::String: {
        const auto& s = *static_cast<const zel::string_t*>(p);
        return Text(s.data(), s.size(), 1);
      }
      case ser_type::WString: {
        const auto& s = *static_cast<const zel::wstring_t*>(p);
        return Text(s.data(), s.size(), 2);
      }
      case ser_type::Record:
        return Record(type.record, p, depth + 1);
      case ser_type::Variant:
        return Variant(p, depth);
      default:
        return res::InvalidType;
    }
  }

  result_t Vector(const zel::TypeDescriptorField& row, const ValueType& type, void* vector, int depth) {
    zel::SerVectorHelper* helper = row.vectorHelper;
    std::uint32_t count = 0;
    if (const result_t r = helper->GetCount(vector, &count); ZEL_FAILED(r)) return r;
    U32(count);
    if (count == 0) return res::NoError;
    const std::uint32_t fixed = ser_type::FixedSize(type.code);
    if (fixed != 0 && type.code != ser_type::Bool) {
      // Numbers that lie back to back go out in one copy.
      void* first = nullptr;
      void* last = nullptr;
      if (ZEL_SUCCEEDED(helper->GetElement(vector, 0, &first)) &&
          ZEL_SUCCEEDED(helper->GetElement(vector, count - 1, &last)) &&
          static_cast<unsigned char*>(last) - static_cast<unsigned char*>(first) ==
              static_cast<std::ptrdiff_t>(count - 1) * fixed) {
        Bytes(first, static_cast<std::size_t>(count) * fixed);
        return res::NoError;
      }
    }
    for (std::uint32_t i = 0; i < count; ++i) {
      void* element = nullptr;
      if (const result_t r = helper->GetElement(vector, i, &element); ZEL_FAILED(r)) return r;
      if (const result_t r = Value(type, element, depth + 1); ZEL_FAILED(r)) return r;
    }
    return res::NoError;
  }

  result_t Variant(const void* p, int depth) {
    VariantView view;
    if (const result_t r = ViewVariant(p, &view); ZEL_FAILED(r)) return r;
    U32(view.tag);
    switch (view.kind) {
      case VariantKind::Empty:
        return res::NoError;
      case VariantKind::Scalar:
        Bytes(view.scalar, view.scalarSize);
        return res::NoError;
      case VariantKind::String:
        return Text(view.text.data(), view.text.size(), 1);
      case VariantKind::WString:
        return Text(view.wtext.data(), view.wtext.size(), 2);
      case VariantKind::Bytes:
        return Text(view.bytes, view.byteCount, 1);
      case VariantKind::Object:
        if (view.object == nullptr || view.descriptor == nullptr) return res::InvalidArgument;
        if (const result_t r = CheckDescriptor(view.descriptor); ZEL_FAILED(r)) return r;
        U32(view.descriptor->serId);
        return Record(view.descriptor, view.object, depth + 1);
    }
    return res::InvalidType;
  }

 private:
  void Bytes(const void* p, std::size_t n) {
    const auto* b = static_cast<const unsigned char*>(p);
    m_out.insert(m_out.end(), b, b + n);
  }
  result_t U8(unsigned char v) {
    m_out.push_back(v);
    return res::NoError;
  }
  void U32(std::uint32_t v) { Bytes(&v, 4); }
  result_t Text(const void* units, std::size_t count, std::size_t unitSize) {
    if (count > kMaxCount) return res::FileIsTooBig;
    U32(static_cast<std::uint32_t>(count));
    Bytes(units, count * unitSize);
    return res::NoError;
  }

  zel::IMetaInfoProvider* m_meta;
  std::vector<unsigned char>& m_out;
};

// ---- reading ----------------------------------------------------------------------

class Decoder {
 public:
  Decoder(zel::IMetaInfoProvider* meta, zel::IAllocator* allocator, const unsigned char* data, std::size_t size)
      : m_meta(meta), m_allocator(allocator), m_pos(data), m_end(data + size) {}

  std::size_t Left() const noexcept { return static_cast<std::size_t>(m_end - m_pos); }

  result_t Record(const zel::TypeDescriptor* descriptor, void* record, int depth) {
    if (depth > kMaxDepth) return res::OutOfRange;
    for (const zel::TypeDescriptorField* row = descriptor->fields; row->flags != zel::kFieldTableEnd; ++row) {
      ValueType type;
      if (const result_t r = ResolveRowType(m_meta, *row, &type); ZEL_FAILED(r)) return r;
      void* member = MemberOf(record, *row);
      const result_t r =
          row->flags == zel::ser_field_flags::Vector ? Vector(*row, type, member, depth) : Value(type, member, depth);
      if (ZEL_FAILED(r)) return r;
    }
    return res::NoError;
  }

  result_t Value(const ValueType& type, void* p, int depth) {
    if (const std::uint32_t fixed = ser_type::FixedSize(type.code); fixed != 0) {
      if (type.code == ser_type::Bool) {
        unsigned char b = 0;
        if (!Bytes(&b, 1)) return res::InvalidSize;
        if (b > 1) return res::InvalidType;
        *static_cast<bool*>(p) = b != 0;
        return res::NoError;
      }
      return Bytes(p, fixed) ? res::NoError : res::InvalidSize;
    }
    switch (type.code) {
      case ser_type::String: {
        std::string_view text;
        if (const result_t r = Text(1, &text); ZEL_FAILED(r)) return r;
        static_cast<zel::string_t*>(p)->assign(text);
        return res::NoError;
      }
      case ser_type::WString: {
        std::u16string_view text;
        if (const result_t r = WText(&text); ZEL_FAILED(r)) return r;
        static_cast<zel::wstring_t*>(p)->assign(text);
        return res::NoError;
      }
      case ser_type::Record:
        return Record(type.record, p, depth + 1);
      case ser_type::Variant:
        return Variant(p, depth);
      default:
        return res::InvalidType;
    }
  }

  result_t Vector(const zel::TypeDescriptorField& row, const ValueType& type, void* vector, int depth) {
    std::uint32_t count = 0;
    if (!Bytes(&count, 4)) return res::InvalidSize;
    // A count must fit into what is left before anything is allocated for it.
    std::uint64_t least = 1;
    if (const result_t r = MinSize(type, depth, &least); ZEL_FAILED(r)) return r;
    if (static_cast<std::uint64_t>(count) * (least == 0 ? 1 : least) > Left()) return res::InvalidSize;
    zel::SerVectorHelper* helper = row.vectorHelper;
    if (const result_t r = helper->Resize(vector, count); ZEL_FAILED(r)) return r;
    if (count == 0) return res::NoError;
    const std::uint32_t fixed = ser_type::FixedSize(type.code);
    if (fixed != 0 && type.code != ser_type::Bool) {
      void* first = nullptr;
      void* last = nullptr;
      if (ZEL_SUCCEEDED(helper->GetElement(vector, 0, &first)) &&
          ZEL_SUCCEEDED(helper->GetElement(vector, count - 1, &last)) &&
          static_cast<unsigned char*>(last) - static_cast<unsigned char*>(first) ==
              static_cast<std::ptrdiff_t>(count - 1) * fixed) {
        return Bytes(first, static_cast<std::size_t>(count) * fixed) ? res::NoError : res::InvalidSize;
      }
    }
    for (std::uint32_t i = 0; i < count; ++i) {
      void* element = nullptr;
      if (const result_t r = helper->GetElement(vector, i, &element); ZEL_FAILED(r)) return r;
      if (const result_t r = Value(type, element, depth + 1); ZEL_FAILED(r)) return r;
    }
    return res::NoError;
  }

  result_t Variant(void* p, int depth) {
    std::uint32_t tag = 0;
    if (!Bytes(&tag, 4)) return res::InvalidSize;
    VariantKind kind;
    std::uint32_t scalarSize = 0;
    if (!ClassifyOwningTag(tag, &kind, &scalarSize)) return res::InvalidType;
    switch (kind) {
      case VariantKind::Empty:
        SetVariantEmpty(p);
        return res::NoError;
      case VariantKind::Scalar: {
        unsigned char value[16] = {};
        if (!Bytes(value, scalarSize)) return res::InvalidSize;
        return SetVariantScalar(p, tag, value);
      }
      case VariantKind::String: {
        std::string_view text;
        if (const result_t r = Text(1, &text); ZEL_FAILED(r)) return r;
        return SetVariantString(p, text);
      }
      case VariantKind::WString: {
        std::u16string_view text;
        if (const result_t r = WText(&text); ZEL_FAILED(r)) return r;
        return SetVariantWString(p, text);
      }
      case VariantKind::Bytes: {
        std::string_view bytes;
        if (const result_t r = Text(1, &bytes); ZEL_FAILED(r)) return r;
        return SetVariantBytes(p, reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size());
      }
      case VariantKind::Object: {
        std::uint32_t serId = 0;
        if (!Bytes(&serId, 4)) return res::InvalidSize;
        const zel::TypeDescriptor* descriptor = nullptr;
        if (const result_t r = FindRecord(m_meta, serId, &descriptor); ZEL_FAILED(r)) return r;
        ScratchRecord scratch;
        if (const result_t r = scratch.Make(descriptor); ZEL_FAILED(r)) return r;
        if (const result_t r = Record(descriptor, scratch.get(), depth + 1); ZEL_FAILED(r)) return r;
        return SetVariantObject(p, descriptor, scratch.get(), m_allocator);
      }
    }
    return res::InvalidType;
  }

  // Fewest bytes one value of `type` takes.
  result_t MinSize(const ValueType& type, int depth, std::uint64_t* out) {
    if (depth > kMaxDepth) return res::OutOfRange;
    if (const std::uint32_t fixed = ser_type::FixedSize(type.code); fixed != 0) {
      *out = fixed;
      return res::NoError;
    }
    if (type.code != ser_type::Record) {
      *out = 4;  // a count or a tag
      return res::NoError;
    }
    std::uint64_t sum = 0;
    for (const zel::TypeDescriptorField* row = type.record->fields; row->flags != zel::kFieldTableEnd; ++row) {
      if (row->flags == zel::ser_field_flags::Vector) {
        sum += 4;
        continue;
      }
      ValueType inner;
      if (const result_t r = ResolveRowType(m_meta, *row, &inner); ZEL_FAILED(r)) return r;
      std::uint64_t n = 0;
      if (const result_t r = MinSize(inner, depth + 1, &n); ZEL_FAILED(r)) return r;
      sum += n;
    }
    *out = sum;
    return res::NoError;
  }

 private:
  bool Bytes(void* out, std::size_t n) noexcept {
    if (n > Left()) return false;
    std::memcpy(out, m_pos, n);
    m_pos += n;
    return true;
  }
  result_t Text(std::size_t unitSize, std::string_view* out) {
    std::uint32_t count = 0;
    if (!Bytes(&count, 4)) return res::InvalidSize;
    const std::uint64_t bytes = static_cast<std::uint64_t>(count) * unitSize;
    if (bytes > Left()) return res::InvalidSize;
    *out = std::string_view(reinterpret_cast<const char*>(m_pos), static_cast<std::size_t>(bytes));
    m_pos += bytes;
    return res::NoError;
  }
  // The units may be unaligned in the blob; they are copied out first.
  result_t WText(std::u16string_view* out) {
    std::string_view raw;
    if (const result_t r = Text(2, &raw); ZEL_FAILED(r)) return r;
    m_units.resize(raw.size() / 2);
    if (!raw.empty()) std::memcpy(m_units.data(), raw.data(), raw.size());
    *out = std::u16string_view(m_units.data(), m_units.size());
    return res::NoError;
  }

  zel::IMetaInfoProvider* m_meta;
  zel::IAllocator* m_allocator;
  const unsigned char* m_pos;
  const unsigned char* m_end;
  std::u16string m_units;
};

}  // namespace

result_t EncodeBinary(zel::IMetaInfoProvider* meta, const zel::TypeDescriptor* descriptor, const void* record,
                      std::vector<unsigned char>& out) {
  if (const result_t r = CheckDescriptor(descriptor); ZEL_FAILED(r)) return r;
  const std::size_t start = out.size();
  out.resize(start + kBinaryHeaderSize);
  Encoder encoder(meta, out);
  if (const result_t r = encoder.Record(descriptor, record, 0); ZEL_FAILED(r)) {
    out.resize(start);
    return r;
  }
  const std::size_t payload = out.size() - start - kBinaryHeaderSize;
  if (payload > kMaxCount - kBinaryHeaderSize) {
    out.resize(start);
    return res::FileIsTooBig;
  }
  unsigned char* h = out.data() + start;
  const std::uint16_t version = kBinaryVersion;
  const std::uint16_t flags = 0;
  const std::uint32_t length = static_cast<std::uint32_t>(payload);
  const std::uint32_t crc = Crc32(h + kBinaryHeaderSize, payload);
  std::memcpy(h, kBinaryMagic, 4);
  std::memcpy(h + 4, &version, 2);
  std::memcpy(h + 6, &flags, 2);
  std::memcpy(h + 8, &descriptor->serId, 4);
  std::memcpy(h + 12, &length, 4);
  std::memcpy(h + 16, &crc, 4);
  return res::NoError;
}

result_t DecodeBinary(zel::IMetaInfoProvider* meta, zel::IAllocator* allocator, const zel::TypeDescriptor* descriptor,
                      const unsigned char* data, std::size_t size, void* record, const BinaryOptions& options,
                      std::uint32_t* consumed) {
  if (const result_t r = CheckDescriptor(descriptor); ZEL_FAILED(r)) return r;
  if (data == nullptr && size != 0) return res::InvalidArgument;
  if (size < kBinaryHeaderSize) return res::InvalidSize;
  if (std::memcmp(data, kBinaryMagic, 4) != 0) return res::InvalidSignature;
  std::uint16_t version = 0;
  std::uint16_t flags = 0;
  std::uint32_t serId = 0;
  std::uint32_t length = 0;
  std::uint32_t crc = 0;
  std::memcpy(&version, data + 4, 2);
  std::memcpy(&flags, data + 6, 2);
  std::memcpy(&serId, data + 8, 4);
  std::memcpy(&length, data + 12, 4);
  std::memcpy(&crc, data + 16, 4);
  if (version != kBinaryVersion || flags != 0) return res::InvalidVersion;
  if (serId != descriptor->serId) return res::InvalidType;
  if (static_cast<std::uint64_t>(length) != size - kBinaryHeaderSize) return res::InvalidSize;
  const unsigned char* payload = data + kBinaryHeaderSize;
  if (options.verifyChecksum && Crc32(payload, length) != crc) return res::InvalidSignature;

  ScratchRecord scratch;
  if (const result_t r = scratch.Make(descriptor); ZEL_FAILED(r)) return r;
  Decoder decoder(meta, allocator, payload, length);
  if (const result_t r = decoder.Record(descriptor, scratch.get(), 0); ZEL_FAILED(r)) return r;
  if (decoder.Left() != 0) return res::InvalidSize;
  if (const result_t r = scratch.MoveInto(record); ZEL_FAILED(r)) return r;
  if (consumed != nullptr) *consumed = static_cast<std::uint32_t>(size);
  return res::NoError;
}

}  // namespace host::serialization_detail
