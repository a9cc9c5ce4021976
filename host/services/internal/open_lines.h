// host::detail::OpenLines: the line buffers a host tracer handed out and has
// not had back yet, each with the level it was opened at; the bookkeeping
// both host tracers share. Not synchronised: the tracer holds its own lock
// around every call. Buffers left open are freed with it.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <optional>
#include <unordered_map>

#include "zel/noncopyable.h"
#include "zel/result.h"

namespace host::detail {

class OpenLines : zel::NonCopyable {
 public:
  OpenLines() = default;
  ~OpenLines() {
    for (auto& [buffer, level] : m_open) std::free(buffer);
  }

  // A new buffer of `size` bytes for a line at `level`; null when memory ran out.
  char* Open(std::uint64_t size, std::uint32_t level) {
    auto* buffer = static_cast<char*>(std::malloc(size == 0 ? 1 : size));
    if (buffer != nullptr) m_open.emplace(buffer, level);
    return buffer;
  }

  bool Contains(char* buffer) const { return m_open.find(buffer) != m_open.end(); }

  // Grows an open buffer to `size` bytes and updates `buffer`. InvalidArgument
  // for a buffer never handed out; OutOfMemory leaves the line as it was.
  zel::result_t Grow(char*& buffer, std::uint64_t size) {
    const auto it = m_open.find(buffer);
    if (it == m_open.end()) return zel::result::InvalidArgument;
    const std::uint32_t openedAt = it->second;
    auto* grown = static_cast<char*>(std::realloc(it->first, size == 0 ? 1 : size));
    if (grown == nullptr) return zel::result::OutOfMemory;
    m_open.erase(it);
    m_open.emplace(grown, openedAt);
    buffer = grown;
    return zel::result::NoError;
  }

  // Takes a buffer back: the level it was opened at, or nothing for a buffer
  // never handed out. The caller frees it.
  std::optional<std::uint32_t> Close(char* buffer) {
    const auto it = m_open.find(buffer);
    if (it == m_open.end()) return std::nullopt;
    const std::uint32_t level = it->second;
    m_open.erase(it);
    return level;
  }

  // Takes a buffer back and frees it: a line dropped before its commit.
  void Discard(char* buffer) {
    if (Close(buffer)) std::free(buffer);
  }

  std::size_t Count() const { return m_open.size(); }

 private:
  std::unordered_map<char*, std::uint32_t> m_open;  // buffer -> level it was opened at
};

}  // namespace host::detail
