#include "host/services/stderr_tracer.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "zel/result.h"

namespace host {

StderrTracer::~StderrTracer() {
  for (auto& [buffer, level] : m_open) std::free(buffer);
}

void StderrTracer::SetLevelFilter(std::uint32_t level) {
  std::atomic_ref<std::uint32_t>(m_level).store(level, std::memory_order_relaxed);
}

std::uint32_t StderrTracer::LevelFilter() const {
  return std::atomic_ref<std::uint32_t>(m_level).load(std::memory_order_relaxed);
}

zel::result_t StderrTracer::AllocLine(std::uint32_t level, zel::TraceRecord* record, std::uint64_t size) {
  const bool grow = record != nullptr && record->buffer != nullptr;
  if (!grow && level > LevelFilter()) return zel::result::NotSupported;
  if (record == nullptr) return zel::result::NoError;
  if (size > kMaxLineSize) return zel::result::OutOfMemory;

  std::lock_guard lock(m_mutex);
  if (!grow) {
    auto* buffer = static_cast<char*>(std::malloc(size == 0 ? 1 : size));
    if (buffer == nullptr) return zel::result::OutOfMemory;
    m_open.emplace(buffer, level);
    record->buffer = buffer;
    return zel::result::NoError;
  }
  const auto it = m_open.find(record->buffer);
  if (it == m_open.end()) return zel::result::InvalidArgument;
  const std::uint32_t openedAt = it->second;
  auto* grown = static_cast<char*>(std::realloc(it->first, size == 0 ? 1 : size));
  if (grown == nullptr) return zel::result::OutOfMemory;
  m_open.erase(it);
  m_open.emplace(grown, openedAt);
  record->buffer = grown;
  return zel::result::NoError;
}

zel::result_t StderrTracer::CommitLine(char* buffer, std::uint64_t length) {
  std::uint32_t level;
  {
    std::lock_guard lock(m_mutex);
    const auto it = m_open.find(buffer);
    if (it == m_open.end()) return zel::result::InvalidArgument;
    level = it->second;
    m_open.erase(it);
  }
  // Whole lines under the lock, so lines of concurrent threads never interleave.
  {
    std::lock_guard lock(m_mutex);
    std::fprintf(stderr, "[%u] ", level);
    std::fwrite(buffer, 1, length, stderr);
    std::fputc('\n', stderr);
  }
  std::free(buffer);
  return zel::result::NoError;
}

}  // namespace host
