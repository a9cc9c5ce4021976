#include "serialization_fixture.h"

#include <cstddef>
#include <cstring>

#include "zel/serialization/field_types.h"
#include "zel/serialization/memory_io.h"
#include "zel/serialization/ser_obj_descriptor.h"

namespace sertest {
namespace {

namespace st = host::ser_type;
using zel::ser_field_flags::Vector;

zel::SerObjDescriptorImpl<Inner> g_innerHelper;
zel::SerObjDescriptorImpl<Everything> g_everythingHelper;
zel::SerObjDescriptorImpl<Chain> g_chainHelper;
zel::SerObjDescriptorImpl<Defaulted> g_defaultedHelper;
zel::SerVectorHelperImpl<zel::types::vector_t<std::uint64_t>> g_u64s;
zel::SerVectorHelperImpl<zel::types::vector_t<Inner>> g_inners;
zel::SerVectorHelperImpl<zel::types::vector_t<zel::string_t>> g_strings;
zel::SerVectorHelperImpl<zel::types::vector_t<zel::wstring_t>> g_wstrings;
zel::SerVectorHelperImpl<zel::types::vector_t<std::int16_t>> g_shorts;
zel::SerVectorHelperImpl<zel::types::vector_t<bool>> g_bools;
zel::SerVectorHelperImpl<zel::types::vector_t<zel::variant_t>> g_variants;

#define ROW(code, type, member) st::Row(code, #member, offsetof(type, member), sizeof(type::member))
#define VROW(code, type, member, helper, serId) \
  st::Row(code, #member, offsetof(type, member), sizeof(type::member), Vector, &helper, serId)

zel::TypeDescriptorField g_innerRows[] = {
    ROW(st::Int32, Inner, code),
    ROW(st::String, Inner, label),
    VROW(st::UInt64, Inner, ids, g_u64s, 0),
    zel::kFieldTableTerminator,
};

zel::TypeDescriptorField g_everythingRows[] = {
    ROW(st::Bool, Everything, flag),
    ROW(st::Int8, Everything, i8),
    ROW(st::UInt8, Everything, u8),
    ROW(st::Int16, Everything, i16),
    ROW(st::UInt16, Everything, u16),
    ROW(st::Int32, Everything, i32),
    ROW(st::UInt32, Everything, u32),
    ROW(st::Int64, Everything, i64),
    ROW(st::UInt64, Everything, u64),
    ROW(st::String, Everything, text),
    ROW(st::WString, Everything, wide),
    st::RecordRow("inner", offsetof(Everything, inner), sizeof(Inner), Inner::SerId),
    VROW(st::Record, Everything, inners, g_inners, Inner::SerId),
    VROW(st::String, Everything, names, g_strings, 0),
    VROW(st::WString, Everything, wideNames, g_wstrings, 0),
    VROW(st::Int16, Everything, shorts, g_shorts, 0),
    VROW(st::Bool, Everything, flags, g_bools, 0),
    ROW(st::Variant, Everything, any),
    VROW(st::Variant, Everything, anys, g_variants, 0),
    zel::kFieldTableTerminator,
};

zel::TypeDescriptorField g_chainRows[] = {
    ROW(st::UInt32, Chain, level),
    ROW(st::Variant, Chain, next),
    zel::kFieldTableTerminator,
};

zel::TypeDescriptorField g_defaultedRows[] = {
    ROW(st::Int32, Defaulted, uid),
    ROW(st::Int64, Defaulted, size),
    ROW(st::Bool, Defaulted, enabled),
    ROW(st::String, Defaulted, name),
    st::RecordRow("inner", offsetof(Defaulted, inner), sizeof(Inner), Inner::SerId),
    zel::kFieldTableTerminator,
};

zel::TypeDescriptor g_innerDescriptor{Inner::SerId, "Inner", sizeof(Inner), g_innerRows, &g_innerHelper};
zel::TypeDescriptor g_everythingDescriptor{Everything::SerId, "Everything", sizeof(Everything), g_everythingRows,
                                           &g_everythingHelper};
zel::TypeDescriptor g_chainDescriptor{Chain::SerId, "Chain", sizeof(Chain), g_chainRows, &g_chainHelper};
zel::TypeDescriptor g_defaultedDescriptor{Defaulted::SerId, "Defaulted", sizeof(Defaulted), g_defaultedRows,
                                          &g_defaultedHelper};

template <class V, class Eq>
bool RangeEquals(const V& a, const V& b, Eq eq) {
  if (a.size() != b.size()) return false;
  for (std::size_t i = 0; i < a.size(); ++i) {
    if (!eq(a[i], b[i])) return false;
  }
  return true;
}

}  // namespace

const zel::TypeDescriptor* InnerDescriptor() { return &g_innerDescriptor; }
const zel::TypeDescriptor* EverythingDescriptor() { return &g_everythingDescriptor; }
const zel::TypeDescriptor* ChainDescriptor() { return &g_chainDescriptor; }
const zel::TypeDescriptor* DefaultedDescriptor() { return &g_defaultedDescriptor; }

bool operator==(const Inner& a, const Inner& b) {
  return a.code == b.code && a.label == b.label && a.ids == b.ids;
}

bool operator==(const Defaulted& a, const Defaulted& b) {
  return a.uid == b.uid && a.size == b.size && a.enabled == b.enabled && a.name == b.name && a.inner == b.inner;
}

bool VariantEquals(const zel::variant_t& a, const zel::variant_t& b) {
  if (a.tag() != b.tag()) return false;
  switch (a.tag()) {
    case zel::vt::String:
      return a.GetString() == b.GetString();
    case zel::vt::WString:
      return a.GetWString() == b.GetWString();
    case zel::vt::Bytes:
      return a.GetBytes() == b.GetBytes();
    case zel::vt::Pair64:
      return a.GetWords128().low == b.GetWords128().low && a.GetWords128().high == b.GetWords128().high;
    case zel::vt::Typed: {
      const zel::anydescrptr& x = a.GetTyped();
      const zel::anydescrptr& y = b.GetTyped();
      if (x.descriptor() != y.descriptor()) return false;
      return x.descriptor() == InnerDescriptor() && *x.get_as<Inner>() == *y.get_as<Inner>();
    }
    default:
      return a.GetWord64() == b.GetWord64();
  }
}

bool operator==(const Everything& a, const Everything& b) {
  const auto same = [](const auto& x, const auto& y) { return x == y; };
  return a.flag == b.flag && a.i8 == b.i8 && a.u8 == b.u8 && a.i16 == b.i16 && a.u16 == b.u16 && a.i32 == b.i32 &&
         a.u32 == b.u32 && a.i64 == b.i64 && a.u64 == b.u64 && a.text == b.text && a.wide == b.wide &&
         a.inner == b.inner && RangeEquals(a.inners, b.inners, same) && RangeEquals(a.names, b.names, same) &&
         RangeEquals(a.wideNames, b.wideNames, same) && a.shorts == b.shorts && a.flags == b.flags &&
         VariantEquals(a.any, b.any) && RangeEquals(a.anys, b.anys, VariantEquals);
}

Everything MakeEverything(zel::IAllocator* allocator) {
  Everything e;
  e.flag = true;
  e.i8 = -128;
  e.u8 = 255;
  e.i16 = -32768;
  e.u16 = 65535;
  e.i32 = -2147483647 - 1;
  e.u32 = 0xFFFFFFFFu;
  e.i64 = INT64_MIN;
  e.u64 = UINT64_MAX;
  e.text = zel::string_t("plain <&> \"text\"\twith\nlines, caf\xC3\xA9");
  // A pair (U+1F600), then a lone high and a lone low surrogate.
  e.wide = zel::wstring_t(std::u16string_view(u"A\xD83D\xDE00 B\xD800 C\xDC00", 9));
  e.inner.code = 7;
  e.inner.label = zel::string_t("inner");
  e.inner.ids.push_back(1);
  e.inner.ids.push_back(UINT64_MAX);
  for (int i = 0; i < 3; ++i) {
    Inner in;
    in.code = -i;
    in.label = zel::string_t(std::string(static_cast<std::size_t>(i), 'x'));
    for (int k = 0; k < i * 2; ++k) in.ids.push_back(static_cast<std::uint64_t>(k) << 40);
    e.inners.push_back(std::move(in));
  }
  e.names.push_back(zel::string_t(""));
  e.names.push_back(zel::string_t("   "));
  e.names.push_back(zel::string_t(std::string_view("nul\0inside\r\x01\xFF", 13)));
  e.wideNames.push_back(zel::wstring_t(u"\xDFFF"));
  e.wideNames.push_back(zel::wstring_t(u"ok"));
  e.shorts.push_back(-1);
  e.shorts.push_back(300);
  e.flags.push_back(true);
  e.flags.push_back(false);
  e.any.SetWString(zel::wstring_t(u"variant"));

  auto add = [&](auto&& set) { set(e.anys.emplace_back()); };
  add([](zel::variant_t&) {});
  add([](zel::variant_t& v) { v.SetByte(zel::vt::Bool, 1); });
  add([](zel::variant_t& v) { v.SetByte(zel::vt::Char, 'c'); });
  add([](zel::variant_t& v) { v.SetByte(zel::vt::UInt8, 200); });
  add([](zel::variant_t& v) { v.SetByte(zel::vt::Int8, 0x80); });
  add([](zel::variant_t& v) { v.SetWord16(zel::vt::Int16, 0x8001); });
  add([](zel::variant_t& v) { v.SetWord16(zel::vt::UInt16, 0xFFFF); });
  add([](zel::variant_t& v) { v.SetUInt32(0xDEADBEEF); });
  add([](zel::variant_t& v) { v.SetInt32(-5); });
  add([](zel::variant_t& v) { v.SetWord64(zel::vt::Int64, 0x8000000000000000ull); });
  add([](zel::variant_t& v) { v.SetUInt64(UINT64_MAX); });
  add([](zel::variant_t& v) {
    const double d = -1.5;
    std::uint64_t bits;
    std::memcpy(&bits, &d, 8);
    v.SetWord64(zel::vt::Double, bits);
  });
  add([](zel::variant_t& v) { v.SetWord64(zel::vt::Time, 133000000000000000ull); });
  add([](zel::variant_t& v) { v.SetString(zel::string_t("narrow")); });
  add([](zel::variant_t& v) { v.SetWString(zel::wstring_t(u"\xD800")); });
  add([](zel::variant_t& v) { v.SetWords128(1, UINT64_MAX); });
  add([&](zel::variant_t& v) {
    Inner in;
    in.code = 42;
    in.ids.push_back(9);
    zel::anydescrptr typed;
    typed.assign_copy(&in, InnerDescriptor(), allocator);
    v.SetTyped(std::move(typed));
  });
  add([](zel::variant_t& v) {
    zel::byte_vector_t bytes;
    for (int i = 0; i < 5; ++i) bytes.push_back(static_cast<unsigned char>(i * 60));
    v.SetBytes(std::move(bytes));
  });
  return e;
}

SerializationTest::SerializationTest() {
  m_locator.Register<zel::ITracer>(&m_tracer);
  m_locator.Register<zel::IAllocator>(&m_allocator);
  m_services = host::RegisterSerializationServices(m_locator);
  m_idsDescriptor = zel::StaticTypeDescriptor<tov::app_control::ApplicationIds>::Get();
  for (const zel::TypeDescriptor* d :
       {InnerDescriptor(), EverythingDescriptor(), ChainDescriptor(), DefaultedDescriptor(), m_idsDescriptor}) {
    EXPECT_EQ(m_services.metaInfo->RegisterDescriptor(d), 0) << d->name;
  }
}

SerializationTest::~SerializationTest() = default;

zel::result_t SerializationTest::ToBinary(const zel::anydescrptr& data, std::vector<unsigned char>& out) {
  zel::RefPtr<zel::IBinarySerializer> serializer;
  if (const zel::result_t r = zel::GetInterface(&m_locator, serializer.Ref()); ZEL_FAILED(r)) return r;
  unsigned char* ptr = nullptr;
  std::uint32_t len = 0;
  const zel::result_t r = serializer->Serialize(data, &m_allocator, &ptr, len, 0);
  if (ZEL_FAILED(r)) return r;
  out.assign(ptr, ptr + len);
  m_allocator.Free(ptr);
  return r;
}

zel::result_t SerializationTest::FromBinary(const std::vector<unsigned char>& blob, const zel::anydescrptr& data) {
  zel::RefPtr<zel::IBinarySerializer> serializer;
  if (const zel::result_t r = zel::GetInterface(&m_locator, serializer.Ref()); ZEL_FAILED(r)) return r;
  const zel::byte_range_t range{blob.data(), blob.data() + blob.size()};
  std::uint32_t len = 0;
  return serializer->Deserialize(range, data, len, 0);
}

zel::result_t SerializationTest::ToXml(const zel::anydescrptr& data, std::string& out) {
  zel::types::vector_t<unsigned char> buffer;
  zel::RefPtr<zel::IIO> io;
  zel::result_t r = zel::memory_io::CreateReadWriteIo<zel::memory_io::ExternalStorageTraits>(buffer, io.Ref());
  if (ZEL_FAILED(r)) return r;
  zel::RefPtr<zel::IXmlStorageFactory> factory;
  zel::RefPtr<zel::IStorageSerializer2> serializer;
  zel::RefPtr<zel::IStorageNode> node;
  if (ZEL_FAILED(r = zel::GetInterface(&m_locator, factory.Ref()))) return r;
  if (ZEL_FAILED(r = zel::GetInterface(&m_locator, serializer.Ref()))) return r;
  if (ZEL_FAILED(r = factory->CreateStorage(io.Get(), "root", node.Ref()))) return r;
  if (ZEL_FAILED(r = serializer->Serialize(data, node.Get(), 0, nullptr))) return r;
  if (ZEL_FAILED(r = node->Flush())) return r;
  out.assign(reinterpret_cast<const char*>(buffer.data()), buffer.size());
  return 0;
}

zel::result_t SerializationTest::FromXml(const std::string& text, const zel::anydescrptr& data) {
  const auto* bytes = reinterpret_cast<const unsigned char*>(text.data());
  const zel::byte_range_t range{bytes, bytes + text.size()};
  zel::RefPtr<zel::IIO> io;
  zel::result_t r = zel::memory_io::CreateReadOnlyIo<zel::memory_io::ExternalStorageTraits>(range, io.Ref());
  if (ZEL_FAILED(r)) return r;
  zel::RefPtr<zel::IXmlStorageFactory> factory;
  zel::RefPtr<zel::IStorageSerializer2> serializer;
  zel::RefPtr<zel::IStorageNode> node;
  if (ZEL_FAILED(r = zel::GetInterface(&m_locator, factory.Ref()))) return r;
  if (ZEL_FAILED(r = zel::GetInterface(&m_locator, serializer.Ref()))) return r;
  if (ZEL_FAILED(r = factory->OpenStorage(io.Get(), 1, node.Ref()))) return r;
  return serializer->Deserialize(data, node.Get(), zel::IStorageSerializer2::Flags::Default, nullptr);
}

std::size_t SerializationTest::TakeErrorLines() {
  std::size_t n = 0;
  for (const auto& line : m_tracer.Lines()) n += line.level == zel::trace_level::Error;
  m_tracer.Clear();
  return n;
}

}  // namespace sertest
