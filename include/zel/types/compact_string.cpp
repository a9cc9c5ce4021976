#include "zel/types/compact_string.h"

#include <cstdlib>
#include <algorithm>
#include <cstring>
#include <new>
#include <stdexcept>
#include <utility>

namespace zel {

namespace {

std::uint64_t LoadWord(const unsigned char* bytes, std::size_t index) noexcept {
  std::uint64_t v;
  std::memcpy(&v, bytes + index * 8, 8);
  return v;
}

void StoreWord(unsigned char* bytes, std::size_t index, std::uint64_t v) noexcept {
  std::memcpy(bytes + index * 8, &v, 8);
}

// Largest odd capacity whose block size (capacity + 1) still fits the word.
constexpr std::size_t kMaxCapacity = 0x7FFFFFFFFFFFFFFFull;

}  // namespace

CompactString::CompactString(CompactString&& other) noexcept {
  std::memcpy(m_bytes, other.m_bytes, sizeof(m_bytes));
  other.SetShortSize(0);
}

CompactString& CompactString::operator=(const CompactString& other) {
  if (this != &other) assign(other.view());
  return *this;
}

CompactString& CompactString::operator=(CompactString&& other) noexcept {
  if (this != &other) {
    CompactString(std::move(other)).swap(*this);
  }
  return *this;
}

CompactString::~CompactString() {
  if (is_long()) std::free(LongPointer());
}

void CompactString::swap(CompactString& other) noexcept {
  unsigned char temp[24];
  std::memcpy(temp, m_bytes, 24);
  std::memcpy(m_bytes, other.m_bytes, 24);
  std::memcpy(other.m_bytes, temp, 24);
}

char* CompactString::LongPointer() const noexcept {
  char* p;
  std::memcpy(&p, m_bytes, sizeof(p));
  return p;
}

char* CompactString::MutableData() noexcept {
  return is_long() ? LongPointer() : reinterpret_cast<char*>(m_bytes);
}

std::size_t CompactString::size() const noexcept {
  if (is_long()) return static_cast<std::size_t>(LoadWord(m_bytes, 1));
  return kShortCapacity - m_bytes[23];
}

std::size_t CompactString::capacity() const noexcept {
  if (!is_long()) return kShortCapacity;
  return static_cast<std::size_t>((LoadWord(m_bytes, 2) & ~kLongFlag) * 2 - 1);
}

void CompactString::SetShortSize(std::size_t size) noexcept {
  m_bytes[size] = 0;
  m_bytes[23] = static_cast<unsigned char>(kShortCapacity - size);
}

void CompactString::SetLong(char* block, std::size_t size, std::size_t capacity) noexcept {
  std::memcpy(m_bytes, &block, sizeof(block));
  StoreWord(m_bytes, 1, size);
  StoreWord(m_bytes, 2, ((capacity + 1) / 2) | kLongFlag);
}

void CompactString::SetSize(std::size_t size) noexcept {
  if (is_long()) {
    LongPointer()[size] = '\0';
    StoreWord(m_bytes, 1, size);
  } else {
    SetShortSize(size);
  }
}

void CompactString::Grow(std::size_t wanted) {
  if (wanted <= capacity()) return;
  if (wanted > kMaxCapacity) throw std::length_error("CompactString");
  // Odd capacity keeps the block size even, as the word stores its half.
  const std::size_t cap = wanted | 1;
  auto* block = static_cast<char*>(std::malloc(cap + 1));
  if (block == nullptr) throw std::bad_alloc();
  const std::size_t n = size();
  std::memcpy(block, data(), n + 1);
  if (is_long()) std::free(LongPointer());
  SetLong(block, n, cap);
}

CompactString& CompactString::assign(std::string_view text) {
  if (text.size() > capacity()) {
    // A fresh block: the old text is not kept, and `text` may point into it.
    CompactString fresh;
    fresh.Grow(text.size());
    std::memcpy(fresh.MutableData(), text.data(), text.size());
    fresh.SetSize(text.size());
    swap(fresh);
    return *this;
  }
  if (!text.empty()) std::memmove(MutableData(), text.data(), text.size());
  SetSize(text.size());
  return *this;
}

CompactString& CompactString::append(std::string_view text) {
  if (text.empty()) return *this;
  const std::size_t n = size();
  if (text.size() > kMaxCapacity - n) throw std::length_error("CompactString");
  if (n + text.size() > capacity()) {
    const std::size_t doubled = capacity() > kMaxCapacity / 2 ? kMaxCapacity : capacity() * 2 + 1;
    // Keep the old block alive while copying text that lives in it.
    CompactString fresh;
    fresh.Grow(std::max(doubled, n + text.size()));
    std::memcpy(fresh.MutableData(), data(), n);
    std::memcpy(fresh.MutableData() + n, text.data(), text.size());
    fresh.SetSize(n + text.size());
    swap(fresh);
    return *this;
  }
  std::memmove(MutableData() + n, text.data(), text.size());
  SetSize(n + text.size());
  return *this;
}

void CompactString::clear() noexcept { SetSize(0); }

}  // namespace zel
