// zel::variant_t: a typed value, a 32-bit tag followed by the value. Event
// fields carry one; the host's serialisers read it by its tag.
//
// Contract:
//  - It owns what it holds: an interface reference (tag 13), strings (14,
//    15), a typed object destroyed through its descriptor (17) and a byte
//    vector with its allocator (4103). The by-reference tags (0x4000 | tag)
//    hold a plain pointer that it does not own.
//  - Copy duplicates the value (AddRef for 13, deep copy otherwise; a typed
//    object copies by anydescrptr's rules).
//  - Move hands the value and its ownership over and leaves tag 0 behind.
//  - Assignment between different tags ends the old value first; between
//    equal tags the value is assigned in place.
#pragma once

#include <cstdint>
#include <new>
#include <utility>

#include "zel/iobject.h"
#include "zel/types/string.h"
#include "zel/types/vector.h"
#include "zel/util/anydescrptr.h"

namespace zel {

namespace vt {
inline constexpr std::uint32_t Empty = 0;
inline constexpr std::uint32_t Bool = 1;   // one byte
inline constexpr std::uint32_t Char = 2;   // one byte
inline constexpr std::uint32_t UInt8 = 3;  // one byte
inline constexpr std::uint32_t Int16 = 4;
inline constexpr std::uint32_t UInt32 = 5;
inline constexpr std::uint32_t Int64 = 6;
inline constexpr std::uint32_t Int8 = 7;  // one byte
inline constexpr std::uint32_t UInt16 = 8;
inline constexpr std::uint32_t Int32 = 9;
inline constexpr std::uint32_t UInt64 = 10;
inline constexpr std::uint32_t Double = 11;  // 64-bit value
inline constexpr std::uint32_t Time = 12;    // 64-bit value
inline constexpr std::uint32_t Object = 13;  // owned interface reference
inline constexpr std::uint32_t String = 14;
inline constexpr std::uint32_t WString = 15;
inline constexpr std::uint32_t Pair64 = 16;  // two 64-bit words
inline constexpr std::uint32_t Typed = 17;   // anydescrptr
inline constexpr std::uint32_t Bytes = 4103;
// A non-owning pointer to a value of the tag in the low bits.
inline constexpr std::uint32_t ByRef = 0x4000;

constexpr bool IsByRef(std::uint32_t tag) noexcept {
  return (tag >= ByRef && tag <= (ByRef | Typed)) || tag == (ByRef | Bytes);
}
}  // namespace vt

using byte_vector_t = types::vector_t<unsigned char, abi_v1_allocator>;

class variant_t {
 public:
  struct Words128 {
    std::uint64_t low;
    std::uint64_t high;
  };

  variant_t() noexcept { m_raw = {0, 0}; }
  variant_t(const variant_t& other) : variant_t() { CopyFrom(other); }
  variant_t(variant_t&& other) noexcept : variant_t() { TakeFrom(other); }
  ~variant_t() { Clear(); }

  variant_t& operator=(const variant_t& other) {
    if (this == &other) return *this;
    if (m_tag == other.m_tag) {
      switch (m_tag) {
        case vt::Object: {
          IObject* p = other.m_object;
          if (p != nullptr) p->AddRef();
          if (m_object != nullptr) m_object->Release();
          m_object = p;
          return *this;
        }
        case vt::String: m_string = other.m_string; return *this;
        case vt::WString: m_wstring = other.m_wstring; return *this;
        case vt::Typed: m_typed = other.m_typed; return *this;
        case vt::Bytes: m_bytes = other.m_bytes; return *this;
        default: m_raw = other.m_raw; return *this;
      }
    }
    variant_t copy(other);
    Clear();
    TakeFrom(copy);
    return *this;
  }

  variant_t& operator=(variant_t&& other) noexcept {
    if (this != &other) {
      Clear();
      TakeFrom(other);
    }
    return *this;
  }

  std::uint32_t tag() const noexcept { return m_tag; }
  bool empty() const noexcept { return m_tag == vt::Empty; }

  // Ends the value; tag 0.
  void Clear() noexcept {
    switch (m_tag) {
      case vt::Object:
        if (m_object != nullptr) m_object->Release();
        break;
      case vt::String: m_string.~string_t(); break;
      case vt::WString: m_wstring.~wstring_t(); break;
      case vt::Typed: m_typed.~anydescrptr(); break;
      case vt::Bytes: m_bytes.~byte_vector_t(); break;
      default: break;
    }
    m_tag = vt::Empty;
    m_raw = {0, 0};
  }

  // ---- setters: each ends the old value first ----
  // `tag` one of 1, 2, 3, 7.
  void SetByte(std::uint32_t tag, std::uint8_t value) noexcept { SetRaw(tag, value); }
  // `tag` 4 or 8.
  void SetWord16(std::uint32_t tag, std::uint16_t value) noexcept { SetRaw(tag, value); }
  void SetUInt32(std::uint32_t value) noexcept { SetRaw(vt::UInt32, value); }
  void SetInt32(std::int32_t value) noexcept { SetRaw(vt::Int32, static_cast<std::uint32_t>(value)); }
  // `tag` one of 6, 11, 12.
  void SetWord64(std::uint32_t tag, std::uint64_t value) noexcept { SetRaw(tag, value); }
  void SetUInt64(std::uint64_t value) noexcept { SetRaw(vt::UInt64, value); }
  void SetWords128(std::uint64_t low, std::uint64_t high) noexcept {
    Clear();
    m_tag = vt::Pair64;
    m_raw = {low, high};
  }
  // Takes a reference of its own.
  void SetObject(IObject* object) noexcept {
    if (object != nullptr) object->AddRef();
    Clear();
    m_tag = vt::Object;
    m_object = object;
  }
  void SetString(string_t value) noexcept { Emplace<string_t>(vt::String, &variant_t::m_string, std::move(value)); }
  void SetWString(wstring_t value) noexcept {
    Emplace<wstring_t>(vt::WString, &variant_t::m_wstring, std::move(value));
  }
  void SetTyped(anydescrptr value) noexcept { Emplace<anydescrptr>(vt::Typed, &variant_t::m_typed, std::move(value)); }
  void SetBytes(byte_vector_t value) noexcept {
    Emplace<byte_vector_t>(vt::Bytes, &variant_t::m_bytes, std::move(value));
  }
  // `baseTag` the tag of what `pointer` points at; not owned.
  void SetReference(std::uint32_t baseTag, void* pointer) noexcept {
    Clear();
    m_tag = vt::ByRef | baseTag;
    m_pointer = pointer;
  }

  // ---- getters: valid only for the matching tag ----
  std::uint8_t GetByte() const noexcept { return static_cast<std::uint8_t>(m_raw.low); }
  std::uint16_t GetWord16() const noexcept { return static_cast<std::uint16_t>(m_raw.low); }
  std::uint32_t GetUInt32() const noexcept { return static_cast<std::uint32_t>(m_raw.low); }
  std::int32_t GetInt32() const noexcept { return static_cast<std::int32_t>(static_cast<std::uint32_t>(m_raw.low)); }
  std::uint64_t GetWord64() const noexcept { return m_raw.low; }
  std::uint64_t GetUInt64() const noexcept { return m_raw.low; }
  Words128 GetWords128() const noexcept { return m_raw; }
  IObject* GetObject() const noexcept { return m_object; }
  const string_t& GetString() const noexcept { return m_string; }
  const wstring_t& GetWString() const noexcept { return m_wstring; }
  const anydescrptr& GetTyped() const noexcept { return m_typed; }
  const byte_vector_t& GetBytes() const noexcept { return m_bytes; }
  void* GetReference() const noexcept { return m_pointer; }

  // Null unless the tag matches.
  const string_t* IfString() const noexcept { return m_tag == vt::String ? &m_string : nullptr; }
  const wstring_t* IfWString() const noexcept { return m_tag == vt::WString ? &m_wstring : nullptr; }

 private:
  template <class V>
  void SetRaw(std::uint32_t tag, V value) noexcept {
    Clear();
    m_tag = tag;
    m_raw.low = static_cast<std::uint64_t>(value);
  }

  template <class V>
  void Emplace(std::uint32_t tag, V variant_t::*member, V&& value) noexcept {
    Clear();
    m_raw = {0, 0};
    ::new (static_cast<void*>(&(this->*member))) V(std::move(value));
    m_tag = tag;
  }

  // Builds this (tag 0) as a copy of `other`.
  void CopyFrom(const variant_t& other) {
    switch (other.m_tag) {
      case vt::Object:
        m_object = other.m_object;
        if (m_object != nullptr) m_object->AddRef();
        break;
      case vt::String: ::new (static_cast<void*>(&m_string)) string_t(other.m_string); break;
      case vt::WString: ::new (static_cast<void*>(&m_wstring)) wstring_t(other.m_wstring); break;
      case vt::Typed: ::new (static_cast<void*>(&m_typed)) anydescrptr(other.m_typed); break;
      case vt::Bytes: ::new (static_cast<void*>(&m_bytes)) byte_vector_t(other.m_bytes); break;
      default: m_raw = other.m_raw; break;
    }
    m_tag = other.m_tag;
  }

  // Builds this (tag 0) from `other`, which is left at tag 0.
  void TakeFrom(variant_t& other) noexcept {
    switch (other.m_tag) {
      case vt::Object: m_object = std::exchange(other.m_object, nullptr); break;
      case vt::String: ::new (static_cast<void*>(&m_string)) string_t(std::move(other.m_string)); break;
      case vt::WString: ::new (static_cast<void*>(&m_wstring)) wstring_t(std::move(other.m_wstring)); break;
      case vt::Typed: ::new (static_cast<void*>(&m_typed)) anydescrptr(std::move(other.m_typed)); break;
      case vt::Bytes: ::new (static_cast<void*>(&m_bytes)) byte_vector_t(std::move(other.m_bytes)); break;
      default: m_raw = other.m_raw; break;
    }
    m_tag = other.m_tag;
    other.Clear();
  }

  std::uint32_t m_tag = vt::Empty;
  union {
    Words128 m_raw;
    IObject* m_object;
    void* m_pointer;
    string_t m_string;
    wstring_t m_wstring;
    anydescrptr m_typed;
    byte_vector_t m_bytes;
  };
};

}  // namespace zel
