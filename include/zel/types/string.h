// zel::basic_string_t<CharT>: the framework's string for narrow (char) and
// 16-bit wide (char16_t, UTF-16) text. Strings cross module borders, so each
// keeps a counted reference to the allocator that made its block and gives
// the block back to it; a null allocator means malloc and free.
//
// Short text lives in place (15 narrow or 7 wide units plus the NUL). The
// layout is fixed: data pointer, size, capacity, allocator, inline buffer.
#pragma once

#include <compare>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <new>
#include <stdexcept>
#include <string_view>
#include <type_traits>
#include <utility>

#include "zel/iallocator.h"

namespace zel {

template <class CharT>
class basic_string_t {
  static_assert(std::is_same_v<CharT, char> || std::is_same_v<CharT, char16_t>,
                "basic_string_t holds narrow or 16-bit text");

 public:
  using value_type = CharT;
  using size_type = std::size_t;
  using view_type = std::basic_string_view<CharT>;
  using traits_type = std::char_traits<CharT>;
  using iterator = CharT*;
  using const_iterator = const CharT*;

  static constexpr size_type npos = static_cast<size_type>(-1);
  static constexpr size_type kInlineUnits = 16 / sizeof(CharT);
  static constexpr size_type kInlineCapacity = kInlineUnits - 1;

  // ---- construction ----
  basic_string_t() noexcept = default;
  explicit basic_string_t(IAllocator* allocator) noexcept : m_allocator(allocator) {
    if (m_allocator != nullptr) m_allocator->AddRef();
  }
  basic_string_t(const CharT* text) : basic_string_t(text, text == nullptr ? 0 : traits_type::length(text)) {}
  basic_string_t(const CharT* text, size_type count) { Construct(text, count); }
  explicit basic_string_t(view_type text) { Construct(text.data(), text.size()); }
  basic_string_t(view_type text, IAllocator* allocator) : basic_string_t(allocator) {
    Construct(text.data(), text.size());
  }
  basic_string_t(size_type count, CharT ch) { resize(count, ch); }

  // A copy takes a reference on the source's allocator and uses it.
  basic_string_t(const basic_string_t& other) : basic_string_t(other.m_allocator) {
    Construct(other.m_data, other.m_size);
  }
  // Takes the heap block, or copies inline units; the source stays usable,
  // empty, with its allocator.
  basic_string_t(basic_string_t&& other) noexcept {
    TakeFrom(other);
    other.ShareAllocatorOf(*this);
  }

  basic_string_t& operator=(const basic_string_t& other) {
    if (this != &other) basic_string_t(other).swap(*this);
    return *this;
  }
  basic_string_t& operator=(basic_string_t&& other) noexcept {
    if (this != &other) {
      Reset();
      TakeFrom(other);
      other.ShareAllocatorOf(*this);
    }
    return *this;
  }
  basic_string_t& operator=(view_type text) { return assign(text); }
  basic_string_t& operator=(const CharT* text) { return assign(view_type(text)); }

  ~basic_string_t() { Reset(); }

  basic_string_t& assign(view_type text) { return assign(text.data(), text.size()); }
  basic_string_t& assign(const CharT* text, size_type count) {
    if (count <= m_capacity) {
      // May overlap our own text.
      if (count != 0) traits_type::move(m_data, text, count);
      SetSize(count);
      return *this;
    }
    basic_string_t fresh(m_allocator);
    fresh.Construct(text, count);
    swap(fresh);
    return *this;
  }

  // ---- access ----
  CharT* data() noexcept { return m_data; }
  const CharT* data() const noexcept { return m_data; }
  const CharT* c_str() const noexcept { return m_data; }
  size_type size() const noexcept { return static_cast<size_type>(m_size); }
  size_type length() const noexcept { return static_cast<size_type>(m_size); }
  bool empty() const noexcept { return m_size == 0; }
  size_type capacity() const noexcept { return static_cast<size_type>(m_capacity); }
  static constexpr size_type max_size() noexcept { return 0x7FFFFFFFFFFFFFFEull; }
  IAllocator* allocator() const noexcept { return m_allocator; }
  bool is_inline() const noexcept { return m_data == m_inline; }

  view_type view() const noexcept { return view_type(m_data, m_size); }
  operator view_type() const noexcept { return view(); }

  CharT& operator[](size_type i) noexcept { return m_data[i]; }
  const CharT& operator[](size_type i) const noexcept { return m_data[i]; }
  CharT& front() noexcept { return m_data[0]; }
  const CharT& front() const noexcept { return m_data[0]; }
  CharT& back() noexcept { return m_data[m_size - 1]; }
  const CharT& back() const noexcept { return m_data[m_size - 1]; }
  iterator begin() noexcept { return m_data; }
  iterator end() noexcept { return m_data + m_size; }
  const_iterator begin() const noexcept { return m_data; }
  const_iterator end() const noexcept { return m_data + m_size; }

  // ---- modification ----
  basic_string_t& append(const CharT* text, size_type count) {
    if (count == 0) return *this;
    // The text may be part of ourselves; find it again after growing.
    const bool own = text >= m_data && text <= m_data + m_size;
    const size_type offset = own ? static_cast<size_type>(text - m_data) : 0;
    ReserveExtra(count, "zel::basic_string_t::reserve_extra()");
    if (own) text = m_data + offset;
    traits_type::copy(m_data + m_size, text, count);
    SetSize(m_size + count);
    return *this;
  }
  basic_string_t& append(view_type text) { return append(text.data(), text.size()); }
  basic_string_t& append(size_type count, CharT ch) {
    if (count == 0) return *this;
    ReserveExtra(count, "zel::basic_string_t::reserve_extra()");
    traits_type::assign(m_data + m_size, count, ch);
    SetSize(m_size + count);
    return *this;
  }
  basic_string_t& operator+=(view_type text) { return append(text); }
  basic_string_t& operator+=(const CharT* text) { return append(view_type(text)); }
  basic_string_t& operator+=(const basic_string_t& text) { return append(text.m_data, text.m_size); }
  basic_string_t& operator+=(CharT ch) {
    push_back(ch);
    return *this;
  }
  void push_back(CharT ch) {
    ReserveExtra(1, "zel::basic_string_t::reserve_extra()");
    m_data[m_size] = ch;
    SetSize(m_size + 1);
  }
  void pop_back() noexcept { SetSize(m_size - 1); }

  // Inserts `text` before unit `pos` (clamped to the size).
  basic_string_t& insert(size_type pos, view_type text) {
    if (pos > m_size) pos = m_size;
    const size_type count = text.size();
    if (count == 0) return *this;
    if (text.data() >= m_data && text.data() <= m_data + m_size) {
      const basic_string_t copy(text);
      return insert(pos, copy.view());
    }
    ReserveExtra(count, "zel::basic_string_t::resize_extra_at");
    traits_type::move(m_data + pos + count, m_data + pos, m_size - pos);
    traits_type::copy(m_data + pos, text.data(), count);
    SetSize(m_size + count);
    return *this;
  }

  // Removes up to `count` units from `pos` on.
  basic_string_t& erase(size_type pos = 0, size_type count = npos) noexcept {
    if (pos >= m_size) return *this;
    if (count > m_size - pos) count = m_size - pos;
    traits_type::move(m_data + pos, m_data + pos + count, m_size - pos - count);
    SetSize(m_size - count);
    return *this;
  }

  void reserve(size_type units) {
    if (units > m_size) ReserveExtra(units - m_size, "zel::basic_string_t::reserve_extra()");
  }
  void resize(size_type units) { resize(units, CharT()); }
  void resize(size_type units, CharT ch) {
    if (units <= m_size) {
      SetSize(units);
      return;
    }
    append(units - m_size, ch);
  }
  void clear() noexcept { SetSize(0); }

  basic_string_t substr(size_type pos, size_type count = npos) const {
    return basic_string_t(view().substr(pos, count), m_allocator);
  }

  void swap(basic_string_t& other) noexcept {
    if (this == &other) return;
    basic_string_t temp;
    temp.TakeFrom(*this);
    TakeFrom(other);
    other.TakeFrom(temp);
  }
  friend void swap(basic_string_t& a, basic_string_t& b) noexcept { a.swap(b); }

  // ---- comparison ----
  friend bool operator==(const basic_string_t& a, const basic_string_t& b) noexcept { return a.view() == b.view(); }
  friend bool operator==(const basic_string_t& a, view_type b) noexcept { return a.view() == b; }
  friend bool operator==(const basic_string_t& a, const CharT* b) noexcept { return a.view() == view_type(b); }
  friend std::strong_ordering operator<=>(const basic_string_t& a, const basic_string_t& b) noexcept {
    return a.view() <=> b.view();
  }
  friend std::strong_ordering operator<=>(const basic_string_t& a, view_type b) noexcept { return a.view() <=> b; }
  friend std::strong_ordering operator<=>(const basic_string_t& a, const CharT* b) noexcept {
    return a.view() <=> view_type(b);
  }

  friend basic_string_t operator+(const basic_string_t& a, view_type b) {
    basic_string_t r(a);
    r.append(b);
    return r;
  }

 private:
  void Construct(const CharT* text, size_type count) {
    if (count > max_size()) throw std::length_error("zel::basic_string_t constructor");
    if (count != 0) append(text, count);
  }

  void SetSize(size_type units) noexcept {
    m_size = units;
    m_data[units] = CharT();
  }

  // Makes room for `extra` more units by the fixed growth rule: at least
  // twice the capacity, so a narrow string's first heap block holds 30.
  void ReserveExtra(size_type extra, const char* what) {
    if (m_capacity - m_size >= extra) return;
    if (extra > max_size() - m_size) throw std::length_error(what);
    const size_type needed = m_size + extra;
    size_type cap = m_capacity > max_size() / 2 ? max_size() : 2 * m_capacity;
    if (cap < needed) cap = needed;
    auto* block = static_cast<CharT*>(Allocate((cap + 1) * sizeof(CharT)));
    traits_type::copy(block, m_data, m_size + 1);
    FreeBlock();
    m_data = block;
    m_capacity = cap;
  }

  void* Allocate(size_type bytes) {
    void* p = m_allocator != nullptr ? m_allocator->Alloc(bytes) : std::malloc(bytes);
    if (p == nullptr) throw std::bad_alloc();
    return p;
  }

  void FreeBlock() noexcept {
    if (m_data == m_inline) return;
    if (m_allocator != nullptr)
      m_allocator->Free(m_data);
    else
      std::free(m_data);
  }

  // Back to empty inline text with no allocator.
  void Reset() noexcept {
    FreeBlock();
    m_data = m_inline;
    m_size = 0;
    m_capacity = kInlineCapacity;
    m_inline[0] = CharT();
    if (m_allocator != nullptr) std::exchange(m_allocator, nullptr)->Release();
  }

  // Requires that this string owns nothing (empty inline, null allocator).
  // Takes the block or the units and the allocator reference of `other`,
  // which is left empty inline with no allocator.
  void TakeFrom(basic_string_t& other) noexcept {
    m_allocator = std::exchange(other.m_allocator, nullptr);
    if (other.m_data == other.m_inline) {
      traits_type::copy(m_inline, other.m_inline, other.m_size + 1);
      m_data = m_inline;
      m_capacity = kInlineCapacity;
    } else {
      m_data = other.m_data;
      m_capacity = other.m_capacity;
    }
    m_size = other.m_size;
    other.m_data = other.m_inline;
    other.m_size = 0;
    other.m_capacity = kInlineCapacity;
    other.m_inline[0] = CharT();
  }

  // Requires a null allocator here: takes a reference on the one of `from`.
  void ShareAllocatorOf(const basic_string_t& from) noexcept {
    m_allocator = from.m_allocator;
    if (m_allocator != nullptr) m_allocator->AddRef();
  }

  CharT* m_data = m_inline;
  std::uint64_t m_size = 0;
  std::uint64_t m_capacity = kInlineCapacity;
  IAllocator* m_allocator = nullptr;
  CharT m_inline[kInlineUnits] = {};
};

using string_t = basic_string_t<char>;
using wstring_t = basic_string_t<char16_t>;

}  // namespace zel
