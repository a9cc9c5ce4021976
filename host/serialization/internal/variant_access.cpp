#include "host/serialization/internal/variant_access.h"

#include <cstring>
#include <utility>

#include "zel/serialization/variant.h"

namespace host::serialization_detail {
namespace {

void StoreScalar(VariantView* view, const void* value, std::uint32_t size) noexcept {
  std::memcpy(view->scalar, value, size);
  view->scalarSize = size;
  view->kind = VariantKind::Scalar;
}

// Fills `view` from a value of owning tag `tag` at `p` (the variant's own
// storage or what a by-reference tag points at).
zel::result_t ViewValue(std::uint32_t tag, const void* p, VariantView* view) noexcept {
  VariantKind kind;
  std::uint32_t size = 0;
  if (!ClassifyOwningTag(tag, &kind, &size)) return zel::result::NotSupported;
  view->tag = tag;
  view->kind = kind;
  switch (kind) {
    case VariantKind::Empty:
      return zel::result::NoError;
    case VariantKind::Scalar:
      StoreScalar(view, p, size);
      return zel::result::NoError;
    case VariantKind::String:
      view->text = static_cast<const zel::string_t*>(p)->view();
      return zel::result::NoError;
    case VariantKind::WString:
      view->wtext = static_cast<const zel::wstring_t*>(p)->view();
      return zel::result::NoError;
    case VariantKind::Bytes: {
      const auto& bytes = *static_cast<const zel::byte_vector_t*>(p);
      view->bytes = bytes.data();
      view->byteCount = bytes.size();
      return zel::result::NoError;
    }
    case VariantKind::Object: {
      const auto& typed = *static_cast<const zel::anydescrptr*>(p);
      view->object = typed.get();
      view->descriptor = typed.descriptor();
      return zel::result::NoError;
    }
  }
  return zel::result::NotSupported;
}

}  // namespace

bool ClassifyOwningTag(std::uint32_t tag, VariantKind* kind, std::uint32_t* scalarSize) noexcept {
  *scalarSize = 0;
  switch (tag) {
    case zel::vt::Empty:
      *kind = VariantKind::Empty;
      return true;
    case zel::vt::Bool:
    case zel::vt::Char:
    case zel::vt::UInt8:
    case zel::vt::Int8:
      *kind = VariantKind::Scalar, *scalarSize = 1;
      return true;
    case zel::vt::Int16:
    case zel::vt::UInt16:
      *kind = VariantKind::Scalar, *scalarSize = 2;
      return true;
    case zel::vt::UInt32:
    case zel::vt::Int32:
      *kind = VariantKind::Scalar, *scalarSize = 4;
      return true;
    case zel::vt::Int64:
    case zel::vt::UInt64:
    case zel::vt::Double:
    case zel::vt::Time:
      *kind = VariantKind::Scalar, *scalarSize = 8;
      return true;
    case zel::vt::Pair64:
      *kind = VariantKind::Scalar, *scalarSize = 16;
      return true;
    case zel::vt::String:
      *kind = VariantKind::String;
      return true;
    case zel::vt::WString:
      *kind = VariantKind::WString;
      return true;
    case zel::vt::Typed:
      *kind = VariantKind::Object;
      return true;
    case zel::vt::Bytes:
      *kind = VariantKind::Bytes;
      return true;
    default:
      return false;
  }
}

zel::result_t ViewVariant(const void* variant, VariantView* view) noexcept {
  const auto& v = *static_cast<const zel::variant_t*>(variant);
  const std::uint32_t tag = v.tag();
  if (zel::vt::IsByRef(tag)) {
    const void* target = v.GetReference();
    if (target == nullptr) return zel::result::InvalidArgument;
    return ViewValue(tag & ~zel::vt::ByRef, target, view);
  }
  switch (tag) {
    case zel::vt::String:
      return ViewValue(tag, &v.GetString(), view);
    case zel::vt::WString:
      return ViewValue(tag, &v.GetWString(), view);
    case zel::vt::Bytes:
      return ViewValue(tag, &v.GetBytes(), view);
    case zel::vt::Typed:
      return ViewValue(tag, &v.GetTyped(), view);
    case zel::vt::Pair64: {
      const zel::variant_t::Words128 w = v.GetWords128();
      return ViewValue(tag, &w, view);
    }
    default: {
      // Scalars live in the low bytes of the first word.
      const std::uint64_t word = v.GetWord64();
      return ViewValue(tag, &word, view);
    }
  }
}

void SetVariantEmpty(void* variant) noexcept { static_cast<zel::variant_t*>(variant)->Clear(); }

zel::result_t SetVariantScalar(void* variant, std::uint32_t tag, const unsigned char* value) noexcept {
  auto& v = *static_cast<zel::variant_t*>(variant);
  VariantKind kind;
  std::uint32_t size = 0;
  if (!ClassifyOwningTag(tag, &kind, &size) || kind != VariantKind::Scalar) return zel::result::InvalidType;
  std::uint64_t low = 0;
  std::memcpy(&low, value, size < 8 ? size : 8);
  switch (size) {
    case 1:
      v.SetByte(tag, static_cast<std::uint8_t>(low));
      break;
    case 2:
      v.SetWord16(tag, static_cast<std::uint16_t>(low));
      break;
    case 4:
      if (tag == zel::vt::Int32) {
        v.SetInt32(static_cast<std::int32_t>(static_cast<std::uint32_t>(low)));
      } else {
        v.SetUInt32(static_cast<std::uint32_t>(low));
      }
      break;
    case 8:
      if (tag == zel::vt::UInt64) {
        v.SetUInt64(low);
      } else {
        v.SetWord64(tag, low);
      }
      break;
    default: {
      std::uint64_t high = 0;
      std::memcpy(&high, value + 8, 8);
      v.SetWords128(low, high);
      break;
    }
  }
  return zel::result::NoError;
}

zel::result_t SetVariantString(void* variant, std::string_view text) {
  static_cast<zel::variant_t*>(variant)->SetString(zel::string_t(text));
  return zel::result::NoError;
}

zel::result_t SetVariantWString(void* variant, std::u16string_view text) {
  static_cast<zel::variant_t*>(variant)->SetWString(zel::wstring_t(text));
  return zel::result::NoError;
}

zel::result_t SetVariantBytes(void* variant, const unsigned char* data, std::size_t size) {
  zel::byte_vector_t bytes;
  bytes.resize(size);
  if (size != 0) std::memcpy(bytes.data(), data, size);
  static_cast<zel::variant_t*>(variant)->SetBytes(std::move(bytes));
  return zel::result::NoError;
}

zel::result_t SetVariantObject(void* variant, const zel::TypeDescriptor* descriptor, void* scratch,
                               zel::IAllocator* allocator) {
  if (allocator == nullptr) return zel::result::NotSupported;
  void* object = descriptor->helper->NewCopy(nullptr, allocator);
  if (object == nullptr) return zel::result::OutOfMemory;
  zel::anydescrptr owned(object, descriptor, allocator);
  const zel::result_t r = descriptor->helper->Move(scratch, object);
  if (ZEL_FAILED(r)) return r;
  static_cast<zel::variant_t*>(variant)->SetTyped(std::move(owned));
  return zel::result::NoError;
}

}  // namespace host::serialization_detail
