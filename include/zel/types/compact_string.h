// zel::CompactString: a 24-byte narrow string with malloc/free and no
// allocator, for records that must stay small (exception details).
//
// Short form: up to 23 bytes and a NUL in place; the last byte holds 23
// minus the length, so a full short string ends in the 0 that is its NUL.
// Long form: pointer, length, and a word holding half the block size with
// its top bit set, so the last byte is negative. The kept capacity is always
// odd (block size minus the NUL).
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace zel {

class CompactString {
 public:
  static constexpr std::size_t kShortCapacity = 23;

  CompactString() noexcept { SetShortSize(0); }
  explicit CompactString(std::string_view text) : CompactString() { assign(text); }
  CompactString(const CompactString& other) : CompactString() { assign(other.view()); }
  CompactString(CompactString&& other) noexcept;
  CompactString& operator=(const CompactString& other);
  CompactString& operator=(CompactString&& other) noexcept;
  ~CompactString();

  CompactString& assign(std::string_view text);
  CompactString& append(std::string_view text);
  void clear() noexcept;

  bool is_long() const noexcept { return static_cast<signed char>(m_bytes[23]) < 0; }
  const char* data() const noexcept { return is_long() ? LongPointer() : reinterpret_cast<const char*>(m_bytes); }
  const char* c_str() const noexcept { return data(); }
  std::size_t size() const noexcept;
  bool empty() const noexcept { return size() == 0; }
  std::size_t capacity() const noexcept;
  std::string_view view() const noexcept { return std::string_view(data(), size()); }
  operator std::string_view() const noexcept { return view(); }

  void swap(CompactString& other) noexcept;

  friend bool operator==(const CompactString& a, const CompactString& b) noexcept { return a.view() == b.view(); }
  friend bool operator==(const CompactString& a, std::string_view b) noexcept { return a.view() == b; }

 private:
  static constexpr std::uint64_t kLongFlag = std::uint64_t{1} << 63;

  char* LongPointer() const noexcept;
  char* MutableData() noexcept;
  void SetShortSize(std::size_t size) noexcept;
  void SetLong(char* block, std::size_t size, std::size_t capacity) noexcept;
  void SetSize(std::size_t size) noexcept;
  // Makes room for `capacity` bytes, keeping the text.
  void Grow(std::size_t capacity);

  alignas(8) unsigned char m_bytes[24] = {};
};

static_assert(sizeof(CompactString) == 24, "CompactString is laid out in 24 bytes");

}  // namespace zel
