// zel::basic_fixed_string<N>: narrow text of at most N - 1 bytes kept in
// place, with no allocation. The last byte holds the room left, so at full
// length it is 0 and serves as both the NUL and the count.
#pragma once

#include <cstddef>
#include <cstring>
#include <string_view>

namespace zel {

template <std::size_t N>
class basic_fixed_string {
  static_assert(N >= 2 && N <= 256, "the room left must fit in the last byte");

 public:
  static constexpr std::size_t kMaxSize = N - 1;

  basic_fixed_string() noexcept { SetSize(0); }

  // False, leaving the text unchanged, if `text` does not fit.
  bool assign(std::string_view text) noexcept {
    if (text.size() > kMaxSize) return false;
    if (!text.empty()) std::memmove(m_chars, text.data(), text.size());
    SetSize(text.size());
    return true;
  }

  std::size_t size() const noexcept {
    return kMaxSize - static_cast<unsigned char>(m_chars[kMaxSize]);
  }
  bool empty() const noexcept { return size() == 0; }
  const char* c_str() const noexcept { return m_chars; }
  const char* data() const noexcept { return m_chars; }
  std::string_view view() const noexcept { return std::string_view(m_chars, size()); }
  operator std::string_view() const noexcept { return view(); }

  friend bool operator==(const basic_fixed_string& a, const basic_fixed_string& b) noexcept {
    return a.view() == b.view();
  }
  friend bool operator==(const basic_fixed_string& a, std::string_view b) noexcept { return a.view() == b; }

 private:
  void SetSize(std::size_t size) noexcept {
    m_chars[size] = '\0';
    m_chars[kMaxSize] = static_cast<char>(kMaxSize - size);
  }

  char m_chars[N] = {};
};

}  // namespace zel
