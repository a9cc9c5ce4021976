#include "host/services/stderr_tracer.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>

#include "zel/result.h"

namespace host {

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
  if (grow) return m_open.Grow(record->buffer, size);
  char* buffer = m_open.Open(size, level);
  if (buffer == nullptr) return zel::result::OutOfMemory;
  record->buffer = buffer;
  return zel::result::NoError;
}

zel::result_t StderrTracer::CommitLine(char* buffer, std::uint64_t length) {
  std::uint32_t level;
  {
    std::lock_guard lock(m_mutex);
    const std::optional<std::uint32_t> opened = m_open.Close(buffer);
    if (!opened) return zel::result::InvalidArgument;
    level = *opened;
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
