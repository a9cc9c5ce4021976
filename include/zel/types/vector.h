// zel::types::vector_t: a contiguous growable array whose every block comes
// from, and goes back to, the allocator the vector holds (by default a
// counted IAllocator reference that may be null, meaning malloc/free).
//
// Growth is fixed so that memory use is predictable across builds: the first
// insertion makes room for 4 elements, later ones for twice the size. A size
// beyond max_size() throws std::length_error ("vector::append",
// "vector::insert" or "vector::reserve").
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <iterator>
#include <memory>
#include <new>
#include <stdexcept>
#include <type_traits>
#include <utility>

#include "zel/types/allocator.h"

namespace zel::types {

template <class T, class Allocator = zel::abi_v1_allocator>
class vector_t {
 public:
  using value_type = T;
  using size_type = std::size_t;
  using difference_type = std::ptrdiff_t;
  using reference = T&;
  using const_reference = const T&;
  using pointer = T*;
  using const_pointer = const T*;
  using iterator = T*;
  using const_iterator = const T*;
  using reverse_iterator = std::reverse_iterator<iterator>;
  using const_reverse_iterator = std::reverse_iterator<const_iterator>;
  using allocator_type = Allocator;

  vector_t() noexcept(std::is_nothrow_default_constructible_v<Allocator>) = default;
  explicit vector_t(IAllocator* allocator) noexcept
    requires std::is_constructible_v<Allocator, IAllocator*>
      : m_alloc(allocator) {}
  explicit vector_t(const Allocator& allocator) noexcept : m_alloc(allocator) {}
  vector_t(std::initializer_list<T> items) { AppendRange(items.begin(), items.end()); }

  vector_t(const vector_t& other) : m_alloc(other.m_alloc) { AppendRange(other.begin(), other.end()); }
  vector_t(vector_t&& other) noexcept
      : m_alloc(std::move(other.m_alloc)),
        m_begin(std::exchange(other.m_begin, nullptr)),
        m_end(std::exchange(other.m_end, nullptr)),
        m_cap(std::exchange(other.m_cap, nullptr)) {}

  // Assignment takes the source's allocator along with its contents.
  vector_t& operator=(const vector_t& other) {
    if (this != &other) vector_t(other).swap(*this);
    return *this;
  }
  vector_t& operator=(vector_t&& other) noexcept {
    if (this != &other) vector_t(std::move(other)).swap(*this);
    return *this;
  }

  ~vector_t() { Release(); }

  // ---- access ----
  size_type size() const noexcept { return static_cast<size_type>(m_end - m_begin); }
  bool empty() const noexcept { return m_begin == m_end; }
  size_type capacity() const noexcept { return static_cast<size_type>(m_cap - m_begin); }
  static constexpr size_type max_size() noexcept {
    return static_cast<size_type>(PTRDIFF_MAX) / sizeof(T);
  }
  T* data() noexcept { return m_begin; }
  const T* data() const noexcept { return m_begin; }

  iterator begin() noexcept { return m_begin; }
  iterator end() noexcept { return m_end; }
  const_iterator begin() const noexcept { return m_begin; }
  const_iterator end() const noexcept { return m_end; }
  const_iterator cbegin() const noexcept { return m_begin; }
  const_iterator cend() const noexcept { return m_end; }
  reverse_iterator rbegin() noexcept { return reverse_iterator(end()); }
  reverse_iterator rend() noexcept { return reverse_iterator(begin()); }
  const_reverse_iterator rbegin() const noexcept { return const_reverse_iterator(end()); }
  const_reverse_iterator rend() const noexcept { return const_reverse_iterator(begin()); }

  T& operator[](size_type i) noexcept { return m_begin[i]; }
  const T& operator[](size_type i) const noexcept { return m_begin[i]; }
  T& at(size_type i) {
    if (i >= size()) throw std::out_of_range("vector::at");
    return m_begin[i];
  }
  const T& at(size_type i) const {
    if (i >= size()) throw std::out_of_range("vector::at");
    return m_begin[i];
  }
  T& front() noexcept { return *m_begin; }
  const T& front() const noexcept { return *m_begin; }
  T& back() noexcept { return m_end[-1]; }
  const T& back() const noexcept { return m_end[-1]; }

  const Allocator& get_allocator() const noexcept { return m_alloc; }

  // ---- modifiers ----
  void push_back(const T& value) { emplace_back(value); }
  void push_back(T&& value) { emplace_back(std::move(value)); }

  template <class... Args>
  T& emplace_back(Args&&... args) {
    if (m_end != m_cap) {
      ::new (static_cast<void*>(m_end)) T(std::forward<Args>(args)...);
      return *m_end++;
    }
    // The new element is built in the new block before anything moves, so
    // arguments that refer into this vector stay valid.
    const size_type n = size();
    if (n == max_size()) throw std::length_error("vector::append");
    const size_type cap = GrownCapacity(n + 1);
    T* fresh = Allocate(cap);
    try {
      ::new (static_cast<void*>(fresh + n)) T(std::forward<Args>(args)...);
    } catch (...) {
      m_alloc.deallocate(fresh);
      throw;
    }
    try {
      RelocateInto(m_begin, m_end, fresh);
    } catch (...) {
      fresh[n].~T();
      m_alloc.deallocate(fresh);
      throw;
    }
    Adopt(fresh, n + 1, cap);
    return fresh[n];
  }

  void pop_back() noexcept {
    --m_end;
    m_end->~T();
  }

  void reserve(size_type n) {
    if (n > max_size()) throw std::length_error("vector::reserve");
    if (n <= capacity()) return;
    Reallocate(n);
  }

  void resize(size_type n) { ResizeWith(n, [](T* p) { ::new (static_cast<void*>(p)) T(); }); }
  void resize(size_type n, const T& value) {
    if (n > size() && n > capacity()) {
      // `value` may live in this vector: copy it before the block moves.
      T copy(value);
      ResizeWith(n, [&](T* p) { ::new (static_cast<void*>(p)) T(copy); });
    } else {
      ResizeWith(n, [&](T* p) { ::new (static_cast<void*>(p)) T(value); });
    }
  }

  void clear() noexcept {
    std::destroy(m_begin, m_end);
    m_end = m_begin;
  }

  iterator insert(const_iterator pos, const T& value) { return emplace(pos, value); }
  iterator insert(const_iterator pos, T&& value) { return emplace(pos, std::move(value)); }

  template <class... Args>
  iterator emplace(const_iterator pos, Args&&... args) {
    const size_type index = static_cast<size_type>(pos - m_begin);
    const size_type n = size();
    if (n == max_size()) throw std::length_error("vector::insert");
    if (index == n) {
      emplace_back(std::forward<Args>(args)...);
      return m_begin + index;
    }
    if (m_end != m_cap) {
      T value(std::forward<Args>(args)...);
      ::new (static_cast<void*>(m_end)) T(std::move(m_end[-1]));
      ++m_end;
      std::move_backward(m_begin + index, m_end - 2, m_end - 1);
      m_begin[index] = std::move(value);
      return m_begin + index;
    }
    const size_type cap = GrownCapacity(n + 1);
    T* fresh = Allocate(cap);
    try {
      ::new (static_cast<void*>(fresh + index)) T(std::forward<Args>(args)...);
    } catch (...) {
      m_alloc.deallocate(fresh);
      throw;
    }
    T* done = fresh;
    try {
      done = RelocateInto(m_begin, m_begin + index, fresh);
      RelocateInto(m_begin + index, m_end, fresh + index + 1);
    } catch (...) {
      std::destroy(fresh, done);
      fresh[index].~T();
      m_alloc.deallocate(fresh);
      throw;
    }
    Adopt(fresh, n + 1, cap);
    return m_begin + index;
  }

  iterator erase(const_iterator pos) { return erase(pos, pos + 1); }
  iterator erase(const_iterator first, const_iterator last) {
    T* f = m_begin + (first - m_begin);
    T* l = m_begin + (last - m_begin);
    if (f != l) {
      T* newEnd = std::move(l, m_end, f);
      std::destroy(newEnd, m_end);
      m_end = newEnd;
    }
    return f;
  }

  void swap(vector_t& other) noexcept {
    using std::swap;
    swap(m_alloc, other.m_alloc);
    swap(m_begin, other.m_begin);
    swap(m_end, other.m_end);
    swap(m_cap, other.m_cap);
  }
  friend void swap(vector_t& a, vector_t& b) noexcept { a.swap(b); }

  friend bool operator==(const vector_t& a, const vector_t& b) {
    return std::equal(a.begin(), a.end(), b.begin(), b.end());
  }

 private:
  // Room for at least `needed` elements following the fixed growth rule.
  size_type GrownCapacity(size_type needed) const noexcept {
    const size_type n = size();
    size_type cap = n == 0 ? 4 : (n > max_size() / 2 ? max_size() : 2 * n);
    if (cap < 4) cap = 4;
    if (cap > max_size()) cap = max_size();
    return std::max(cap, needed);
  }

  T* Allocate(size_type count) { return static_cast<T*>(m_alloc.allocate(count * sizeof(T))); }

  // Moves (or copies, where moving may throw) [first, last) into raw memory
  // at `out`; on failure the copies made so far are destroyed.
  static T* RelocateInto(T* first, T* last, T* out) {
    T* cur = out;
    try {
      for (; first != last; ++first, ++cur) ::new (static_cast<void*>(cur)) T(std::move_if_noexcept(*first));
    } catch (...) {
      std::destroy(out, cur);
      throw;
    }
    return cur;
  }

  // Takes `fresh` (already holding `count` live elements) as the block.
  void Adopt(T* fresh, size_type count, size_type cap) noexcept {
    Release();
    m_begin = fresh;
    m_end = fresh + count;
    m_cap = fresh + cap;
  }

  void Reallocate(size_type cap) {
    T* fresh = Allocate(cap);
    const size_type n = size();
    try {
      RelocateInto(m_begin, m_end, fresh);
    } catch (...) {
      m_alloc.deallocate(fresh);
      throw;
    }
    Adopt(fresh, n, cap);
  }

  template <class Construct>
  void ResizeWith(size_type n, Construct construct) {
    const size_type old = size();
    if (n <= old) {
      std::destroy(m_begin + n, m_end);
      m_end = m_begin + n;
      return;
    }
    if (n > max_size()) throw std::length_error("vector::append");
    if (n > capacity()) Reallocate(GrownCapacity(n));
    // The end is read once: a store through a byte type may alias m_begin,
    // and reloading it every step keeps a byte fill from becoming a memset.
    T* const stop = m_begin + n;
    T* cur = m_end;
    try {
      for (; cur != stop; ++cur) construct(cur);
    } catch (...) {
      std::destroy(m_end, cur);
      throw;
    }
    m_end = cur;
  }

  template <class It>
  void AppendRange(It first, It last) {
    const auto count = static_cast<size_type>(std::distance(first, last));
    if (count == 0) return;
    if (count > max_size()) throw std::length_error("vector::append");
    m_begin = Allocate(count);
    m_end = m_begin;
    m_cap = m_begin + count;
    try {
      for (; first != last; ++first, ++m_end) ::new (static_cast<void*>(m_end)) T(*first);
    } catch (...) {
      Release();
      throw;
    }
  }

  void Release() noexcept {
    if (m_begin == nullptr) return;
    std::destroy(m_begin, m_end);
    m_alloc.deallocate(m_begin);
    m_begin = m_end = m_cap = nullptr;
  }

  [[no_unique_address]] Allocator m_alloc{};
  T* m_begin = nullptr;
  T* m_end = nullptr;
  T* m_cap = nullptr;
};

}  // namespace zel::types
