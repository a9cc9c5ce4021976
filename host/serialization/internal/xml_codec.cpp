#include "host/serialization/internal/xml_codec.h"

#include <charconv>
#include <cstdint>
#include <cstring>
#include <limits>
#include <string>
#include <string_view>

#include "zel/serialization/field_types.h"
#include "host/serialization/internal/descriptor_check.h"
#include "host/serialization/internal/record_walk.h"
#include "host/serialization/internal/text_forms.h"
#include "host/serialization/internal/variant_access.h"
#include "zel/serialization/variant.h"
#include "zel/types/string.h"

namespace host::serialization_detail {
namespace {

using zel::result_t;
namespace res = zel::result;

constexpr const char* kItem = "item";
constexpr const char* kEncoding = "enc";
constexpr const char* kHexEncoding = "hex";
constexpr const char* kTag = "tag";
constexpr const char* kSerId = "serId";

// Field names become element names; only plain XML names are accepted so
// that what is written can be read again.
bool IsElementName(const char* name) noexcept {
  if (name == nullptr) return false;
  const auto first = static_cast<unsigned char>(name[0]);
  if (!((first >= 'A' && first <= 'Z') || (first >= 'a' && first <= 'z') || first == '_')) return false;
  for (const char* p = name + 1; *p != '\0'; ++p) {
    const auto c = static_cast<unsigned char>(*p);
    if (!((c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '_' || c == '-' ||
          c == '.')) {
      return false;
    }
  }
  return std::strncmp(name, "xml", 3) != 0;
}

std::uint64_t LoadUnsigned(const void* p, std::uint32_t size) noexcept {
  std::uint64_t v = 0;
  std::memcpy(&v, p, size);  // little-endian: the low bytes
  return v;
}

std::uint64_t MaxOf(std::uint32_t size) noexcept { return size >= 8 ? ~0ull : (1ull << (8 * size)) - 1; }

// Variant tags of signed integers are written as signed decimals.
bool IsSignedTag(std::uint32_t tag) noexcept {
  return tag == zel::vt::Int8 || tag == zel::vt::Int16 || tag == zel::vt::Int32 || tag == zel::vt::Int64;
}

std::int64_t LoadSigned(const void* p, std::uint32_t size) noexcept {
  const std::uint64_t raw = LoadUnsigned(p, size);
  const unsigned shift = 64 - 8 * size;
  return static_cast<std::int64_t>(raw << shift) >> shift;
}

// ---- writing ------------------------------------------------------------------------

class Encoder {
 public:
  explicit Encoder(zel::IMetaInfoProvider* meta) : m_meta(meta) {}

  result_t Record(const zel::TypeDescriptor* descriptor, const void* record, pugi::xml_node node, int depth) {
    if (depth > kMaxDepth) return res::OutOfRange;
    for (const zel::TypeDescriptorField* row = descriptor->fields; row->flags != zel::kFieldTableEnd; ++row) {
      if (!IsElementName(row->name)) return res::InvalidType;
      ValueType type;
      if (const result_t r = ResolveRowType(m_meta, *row, &type); ZEL_FAILED(r)) return r;
      const void* member = MemberOf(record, *row);
      bool zero = false;
      if (const result_t r = IsZero(*row, type, member, &zero); ZEL_FAILED(r)) return r;
      if (zero) continue;  // an absent element reads as the zero of its type
      pugi::xml_node child = node.append_child(row->name);
      const result_t r = row->flags == zel::ser_field_flags::Vector
                             ? Vector(*row, type, const_cast<void*>(member), child, depth)
                             : Value(type, member, child, depth);
      if (ZEL_FAILED(r)) return r;
      // A nested record whose fields were all left out says nothing either.
      if (type.code == ser_type::Record && row->flags != zel::ser_field_flags::Vector && !child.first_child()) {
        node.remove_child(child);
      }
    }
    return res::NoError;
  }

  // Whether the member is the zero of its type and so needs no element.
  // Records are judged afterwards, by what their own fields wrote.
  static result_t IsZero(const zel::TypeDescriptorField& row, const ValueType& type, const void* p, bool* zero) {
    *zero = false;
    if (row.flags == zel::ser_field_flags::Vector) {
      std::uint32_t count = 0;
      if (const result_t r = row.vectorHelper->GetCount(const_cast<void*>(p), &count); ZEL_FAILED(r)) return r;
      *zero = count == 0;
      return res::NoError;
    }
    // Bool and the integers: every byte zero.
    if (const std::uint32_t size = ser_type::FixedSize(type.code); size != 0) {
      *zero = LoadUnsigned(p, size) == 0;
      return res::NoError;
    }
    switch (type.code) {
      case ser_type::String:
        *zero = static_cast<const zel::string_t*>(p)->view().empty();
        return res::NoError;
      case ser_type::WString:
        *zero = static_cast<const zel::wstring_t*>(p)->view().empty();
        return res::NoError;
      case ser_type::Variant: {
        VariantView view;
        if (const result_t r = ViewVariant(p, &view); ZEL_FAILED(r)) return r;
        *zero = view.kind == VariantKind::Empty;
        return res::NoError;
      }
      default:
        return res::NoError;
    }
  }

  result_t Value(const ValueType& type, const void* p, pugi::xml_node node, int depth) {
    switch (type.code) {
      case ser_type::Bool:
        return Text(node, *static_cast<const bool*>(p) ? "true" : "false");
      case ser_type::Int8:
        return Number(node, static_cast<std::int64_t>(*static_cast<const std::int8_t*>(p)));
      case ser_type::Int16:
        return Number(node, static_cast<std::int64_t>(*static_cast<const std::int16_t*>(p)));
      case ser_type::Int32:
        return Number(node, static_cast<std::int64_t>(*static_cast<const std::int32_t*>(p)));
      case ser_type::Int64:
        return Number(node, *static_cast<const std::int64_t*>(p));
      case ser_type::UInt8:
      case ser_type::UInt16:
      case ser_type::UInt32:
      case ser_type::UInt64:
        return Number(node, LoadUnsigned(p, ser_type::FixedSize(type.code)));
      case ser_type::String:
        return Narrow(node, static_cast<const zel::string_t*>(p)->view());
      case ser_type::WString:
        return Wide(node, static_cast<const zel::wstring_t*>(p)->view());
      case ser_type::Record:
        return Record(type.record, p, node, depth + 1);
      case ser_type::Variant:
        return Variant(p, node, depth);
      default:
        return res::InvalidType;
    }
  }

  result_t Vector(const zel::TypeDescriptorField& row, const ValueType& type, void* vector, pugi::xml_node node,
                  int depth) {
    std::uint32_t count = 0;
    if (const result_t r = row.vectorHelper->GetCount(vector, &count); ZEL_FAILED(r)) return r;
    for (std::uint32_t i = 0; i < count; ++i) {
      void* element = nullptr;
      if (const result_t r = row.vectorHelper->GetElement(vector, i, &element); ZEL_FAILED(r)) return r;
      if (const result_t r = Value(type, element, node.append_child(kItem), depth + 1); ZEL_FAILED(r)) return r;
    }
    return res::NoError;
  }

  result_t Variant(const void* p, pugi::xml_node node, int depth) {
    VariantView view;
    if (const result_t r = ViewVariant(p, &view); ZEL_FAILED(r)) return r;
    node.append_attribute(kTag).set_value(static_cast<unsigned long long>(view.tag));
    switch (view.kind) {
      case VariantKind::Empty:
        return res::NoError;
      case VariantKind::Scalar:
        if (IsSignedTag(view.tag)) return Number(node, LoadSigned(view.scalar, view.scalarSize));
        if (view.scalarSize == 16) {
          std::string text = std::to_string(LoadUnsigned(view.scalar, 8));
          text.push_back(' ');
          text += std::to_string(LoadUnsigned(static_cast<const unsigned char*>(view.scalar) + 8, 8));
          return Text(node, text.c_str());
        }
        return Number(node, LoadUnsigned(view.scalar, view.scalarSize));
      case VariantKind::String:
        return Narrow(node, view.text);
      case VariantKind::WString:
        return Wide(node, view.wtext);
      case VariantKind::Bytes: {
        m_scratch.clear();
        AppendHexBytes(view.bytes, view.byteCount, m_scratch);
        return Text(node, m_scratch.c_str());
      }
      case VariantKind::Object:
        if (view.object == nullptr || view.descriptor == nullptr) return res::InvalidArgument;
        if (const result_t r = CheckDescriptor(view.descriptor); ZEL_FAILED(r)) return r;
        node.append_attribute(kSerId).set_value(static_cast<unsigned long long>(view.descriptor->serId));
        return Record(view.descriptor, view.object, node, depth + 1);
    }
    return res::InvalidType;
  }

 private:
  static result_t Text(pugi::xml_node node, const char* text) {
    if (text[0] != '\0') node.append_child(pugi::node_pcdata).set_value(text);
    return res::NoError;
  }
  template <class Integer>
  static result_t Number(pugi::xml_node node, Integer v) {
    char text[24];  // twenty digits and a sign at most
    const auto end = std::to_chars(text, text + sizeof(text) - 1, v).ptr;
    *end = '\0';
    return Text(node, text);
  }
  // Text nodes hold C strings: a NUL inside goes hex like anything unsafe.
  result_t Narrow(pugi::xml_node node, std::string_view text) {
    if (IsXmlSafeUtf8(text)) {
      m_scratch.assign(text);
    } else {
      node.append_attribute(kEncoding).set_value(kHexEncoding);
      m_scratch.clear();
      AppendHexBytes(reinterpret_cast<const unsigned char*>(text.data()), text.size(), m_scratch);
    }
    return Text(node, m_scratch.c_str());
  }
  result_t Wide(pugi::xml_node node, std::u16string_view text) {
    if (!XmlSafeUtf16ToUtf8(text, m_scratch)) {
      node.append_attribute(kEncoding).set_value(kHexEncoding);
      m_scratch.clear();
      AppendHexUnits(text, m_scratch);
    }
    return Text(node, m_scratch.c_str());
  }

  zel::IMetaInfoProvider* m_meta;
  std::string m_scratch;
};

// ---- reading ------------------------------------------------------------------------

class Decoder {
 public:
  Decoder(zel::IMetaInfoProvider* meta, zel::IAllocator* allocator) : m_meta(meta), m_allocator(allocator) {}

  result_t Record(const zel::TypeDescriptor* descriptor, pugi::xml_node node, void* record, int depth) {
    if (depth > kMaxDepth) return res::OutOfRange;
    for (const zel::TypeDescriptorField* row = descriptor->fields; row->flags != zel::kFieldTableEnd; ++row) {
      ValueType type;
      if (const result_t r = ResolveRowType(m_meta, *row, &type); ZEL_FAILED(r)) return r;
      // A null `node` is a nested record that was left out: all its fields
      // are absent.
      const pugi::xml_node child = node.child(row->name);
      void* member = MemberOf(record, *row);
      result_t r = res::NoError;
      if (!child) {
        r = Zero(*row, type, member, depth);
      } else if (row->flags == zel::ser_field_flags::Vector) {
        r = Vector(*row, type, child, member, depth);
      } else {
        r = Value(type, child, member, depth);
      }
      if (ZEL_FAILED(r)) return r;
    }
    return res::NoError;
  }

  // An absent field is the zero of its type, whatever the record's
  // constructor put there.
  result_t Zero(const zel::TypeDescriptorField& row, const ValueType& type, void* p, int depth) {
    if (row.flags == zel::ser_field_flags::Vector) return row.vectorHelper->Resize(p, 0);
    if (const std::uint32_t size = ser_type::FixedSize(type.code); size != 0) {
      std::memset(p, 0, size);
      return res::NoError;
    }
    switch (type.code) {
      case ser_type::String:
        static_cast<zel::string_t*>(p)->clear();
        return res::NoError;
      case ser_type::WString:
        static_cast<zel::wstring_t*>(p)->clear();
        return res::NoError;
      case ser_type::Record:
        return Record(type.record, pugi::xml_node(), p, depth + 1);
      case ser_type::Variant:
        SetVariantEmpty(p);
        return res::NoError;
      default:
        return res::InvalidType;
    }
  }

  result_t Value(const ValueType& type, pugi::xml_node node, void* p, int depth) {
    if (type.code == ser_type::Record) return Record(type.record, node, p, depth + 1);
    if (type.code == ser_type::Variant) return Variant(node, p, depth);
    std::string_view text;
    if (!LeafText(node, &text)) return res::InvalidType;
    switch (type.code) {
      case ser_type::Bool:
        if (text == "true") {
          *static_cast<bool*>(p) = true;
        } else if (text == "false") {
          *static_cast<bool*>(p) = false;
        } else {
          return res::InvalidType;
        }
        return res::NoError;
      case ser_type::Int8:
        return Signed<std::int8_t>(text, p);
      case ser_type::Int16:
        return Signed<std::int16_t>(text, p);
      case ser_type::Int32:
        return Signed<std::int32_t>(text, p);
      case ser_type::Int64:
        return Signed<std::int64_t>(text, p);
      case ser_type::UInt8:
        return Unsigned<std::uint8_t>(text, p);
      case ser_type::UInt16:
        return Unsigned<std::uint16_t>(text, p);
      case ser_type::UInt32:
        return Unsigned<std::uint32_t>(text, p);
      case ser_type::UInt64:
        return Unsigned<std::uint64_t>(text, p);
      case ser_type::String:
        if (const result_t r = Narrow(node, text); ZEL_FAILED(r)) return r;
        static_cast<zel::string_t*>(p)->assign(std::string_view(m_bytes));
        return res::NoError;
      case ser_type::WString:
        if (const result_t r = Wide(node, text); ZEL_FAILED(r)) return r;
        static_cast<zel::wstring_t*>(p)->assign(std::u16string_view(m_units));
        return res::NoError;
      default:
        return res::InvalidType;
    }
  }

  result_t Vector(const zel::TypeDescriptorField& row, const ValueType& type, pugi::xml_node node, void* vector,
                  int depth) {
    std::uint64_t count = 0;
    for (pugi::xml_node child = node.first_child(); child; child = child.next_sibling()) {
      if (child.type() == pugi::node_element) {
        if (std::strcmp(child.name(), kItem) != 0) return res::InvalidType;
        ++count;
      } else if (child.type() != pugi::node_pcdata || !IsBlank(child.value())) {
        return res::InvalidType;
      }
    }
    if (count > 0xFFFFFFFFull) return res::InvalidSize;
    if (const result_t r = row.vectorHelper->Resize(vector, static_cast<std::uint32_t>(count)); ZEL_FAILED(r)) {
      return r;
    }
    std::uint32_t i = 0;
    for (pugi::xml_node child = node.child(kItem); child; child = child.next_sibling(kItem), ++i) {
      void* element = nullptr;
      if (const result_t r = row.vectorHelper->GetElement(vector, i, &element); ZEL_FAILED(r)) return r;
      if (const result_t r = Value(type, child, element, depth + 1); ZEL_FAILED(r)) return r;
    }
    return res::NoError;
  }

  result_t Variant(pugi::xml_node node, void* p, int depth) {
    std::uint64_t tag = 0;
    if (!ParseUnsigned(node.attribute(kTag).value(), 0xFFFFFFFFull, &tag)) return res::InvalidType;
    VariantKind kind;
    std::uint32_t scalarSize = 0;
    if (!ClassifyOwningTag(static_cast<std::uint32_t>(tag), &kind, &scalarSize)) return res::InvalidType;
    if (kind == VariantKind::Object) return Object(node, p, depth);
    std::string_view text;
    if (!LeafText(node, &text)) return res::InvalidType;
    switch (kind) {
      case VariantKind::Empty:
        if (!text.empty()) return res::InvalidType;
        SetVariantEmpty(p);
        return res::NoError;
      case VariantKind::Scalar: {
        unsigned char value[16] = {};
        if (IsSignedTag(static_cast<std::uint32_t>(tag))) {
          const std::int64_t max = static_cast<std::int64_t>(MaxOf(scalarSize) >> 1);
          std::int64_t v = 0;
          if (!ParseSigned(text, -max - 1, max, &v)) return res::InvalidType;
          std::memcpy(value, &v, scalarSize);  // little-endian: the low bytes carry the value
        } else if (scalarSize == 16) {
          const std::size_t blank = text.find(' ');
          std::uint64_t lo = 0;
          std::uint64_t hi = 0;
          if (blank == std::string_view::npos || !ParseUnsigned(text.substr(0, blank), ~0ull, &lo) ||
              !ParseUnsigned(text.substr(blank + 1), ~0ull, &hi)) {
            return res::InvalidType;
          }
          std::memcpy(value, &lo, 8);
          std::memcpy(value + 8, &hi, 8);
        } else {
          std::uint64_t v = 0;
          if (!ParseUnsigned(text, MaxOf(scalarSize), &v)) return res::InvalidType;
          std::memcpy(value, &v, scalarSize);
        }
        return SetVariantScalar(p, static_cast<std::uint32_t>(tag), value);
      }
      case VariantKind::String:
        if (const result_t r = Narrow(node, text); ZEL_FAILED(r)) return r;
        return SetVariantString(p, m_bytes);
      case VariantKind::WString:
        if (const result_t r = Wide(node, text); ZEL_FAILED(r)) return r;
        return SetVariantWString(p, m_units);
      case VariantKind::Bytes:
        if (!ParseHexBytes(text, m_bytes)) return res::InvalidType;
        return SetVariantBytes(p, reinterpret_cast<const unsigned char*>(m_bytes.data()), m_bytes.size());
      case VariantKind::Object:
        break;
    }
    return res::InvalidType;
  }

 private:
  result_t Object(pugi::xml_node node, void* p, int depth) {
    std::uint64_t serId = 0;
    if (!ParseUnsigned(node.attribute(kSerId).value(), 0xFFFFFFFFull, &serId)) return res::InvalidType;
    const zel::TypeDescriptor* descriptor = nullptr;
    if (const result_t r = FindRecord(m_meta, static_cast<std::uint32_t>(serId), &descriptor); ZEL_FAILED(r)) {
      return r;
    }
    ScratchRecord scratch;
    if (const result_t r = scratch.Make(descriptor); ZEL_FAILED(r)) return r;
    if (const result_t r = Record(descriptor, node, scratch.get(), depth + 1); ZEL_FAILED(r)) return r;
    return SetVariantObject(p, descriptor, scratch.get(), m_allocator);
  }

  static bool IsBlank(const char* text) noexcept {
    for (; *text != '\0'; ++text) {
      if (*text != ' ' && *text != '\t' && *text != '\n' && *text != '\r') return false;
    }
    return true;
  }

  // The one text of a leaf element ("" when it has none); false when it has
  // element children or its text comes in pieces.
  static bool LeafText(pugi::xml_node node, std::string_view* out) {
    pugi::xml_node text;
    for (pugi::xml_node child = node.first_child(); child; child = child.next_sibling()) {
      if ((child.type() != pugi::node_pcdata && child.type() != pugi::node_cdata) || text) return false;
      text = child;
    }
    *out = text ? std::string_view(text.value()) : std::string_view();
    return true;
  }

  static bool IsHex(pugi::xml_node node, bool* hex) {
    const pugi::xml_attribute enc = node.attribute(kEncoding);
    if (!enc) {
      *hex = false;
      return true;
    }
    *hex = std::strcmp(enc.value(), kHexEncoding) == 0;
    return *hex;
  }

  result_t Narrow(pugi::xml_node node, std::string_view text) {
    bool hex = false;
    if (!IsHex(node, &hex)) return res::InvalidType;
    if (hex) return ParseHexBytes(text, m_bytes) ? res::NoError : res::InvalidType;
    m_bytes.assign(text);
    return res::NoError;
  }

  result_t Wide(pugi::xml_node node, std::string_view text) {
    bool hex = false;
    if (!IsHex(node, &hex)) return res::InvalidType;
    const bool ok = hex ? ParseHexUnits(text, m_units) : Utf8ToUtf16Strict(text, m_units);
    return ok ? res::NoError : res::InvalidType;
  }

  template <class T>
  static result_t Signed(std::string_view text, void* p) {
    std::int64_t v = 0;
    if (!ParseSigned(text, std::numeric_limits<T>::min(), std::numeric_limits<T>::max(), &v)) return res::InvalidType;
    *static_cast<T*>(p) = static_cast<T>(v);
    return res::NoError;
  }
  template <class T>
  static result_t Unsigned(std::string_view text, void* p) {
    std::uint64_t v = 0;
    if (!ParseUnsigned(text, std::numeric_limits<T>::max(), &v)) return res::InvalidType;
    *static_cast<T*>(p) = static_cast<T>(v);
    return res::NoError;
  }

  zel::IMetaInfoProvider* m_meta;
  zel::IAllocator* m_allocator;
  std::string m_bytes;
  std::u16string m_units;
};

}  // namespace

result_t EncodeXml(zel::IMetaInfoProvider* meta, const zel::TypeDescriptor* descriptor, const void* record,
                   pugi::xml_node node) {
  if (const result_t r = CheckDescriptor(descriptor); ZEL_FAILED(r)) return r;
  if (!node) return res::InvalidArgument;
  while (node.first_child()) node.remove_child(node.first_child());
  Encoder encoder(meta);
  const result_t r = encoder.Record(descriptor, record, node, 0);
  if (ZEL_FAILED(r)) {
    while (node.first_child()) node.remove_child(node.first_child());
  }
  return r;
}

result_t DecodeXml(zel::IMetaInfoProvider* meta, zel::IAllocator* allocator, const zel::TypeDescriptor* descriptor,
                   pugi::xml_node node, void* record) {
  if (const result_t r = CheckDescriptor(descriptor); ZEL_FAILED(r)) return r;
  if (!node) return res::InvalidArgument;
  ScratchRecord scratch;
  if (const result_t r = scratch.Make(descriptor); ZEL_FAILED(r)) return r;
  Decoder decoder(meta, allocator);
  if (const result_t r = decoder.Record(descriptor, node, scratch.get(), 0); ZEL_FAILED(r)) return r;
  return scratch.MoveInto(record);
}

}  // namespace host::serialization_detail
