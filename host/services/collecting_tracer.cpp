#include "host/services/collecting_tracer.h"

#include <cstdlib>
#include <optional>
#include <utility>

#include "zel/result.h"

namespace host {

zel::result_t CollectingTracer::QueryInterface(zel::iid_t iid, void** out) {
  if (iid == zel::trace::ITraceLevelLimit::iid && !m_exposeLimit.load(std::memory_order_acquire) && out != nullptr) {
    *out = nullptr;
    return zel::result::InterfaceNotSupported;
  }
  return OwnedObject::QueryInterface(iid, out);
}

zel::result_t CollectingTracer::AllocLine(std::uint32_t level, zel::TraceRecord* record, std::uint64_t size) {
  m_allocCount.fetch_add(1, std::memory_order_relaxed);
  const AllocMode mode = record == nullptr           ? AllocMode::Query
                         : record->buffer == nullptr ? AllocMode::Open
                                                     : AllocMode::Grow;
  if (m_recording.load(std::memory_order_relaxed)) {
    std::lock_guard lock(m_mutex);
    m_allocCalls.push_back({mode, level, size});
  }

  if (mode != AllocMode::Grow && level > m_filter.load(std::memory_order_relaxed)) return zel::result::NotSupported;
  if (mode == AllocMode::Query) return zel::result::NoError;
  if (size > m_maxLineSize.load(std::memory_order_relaxed)) {
    return mode == AllocMode::Grow ? zel::result::OutOfMemory : zel::result::InvalidArgument;
  }

  std::lock_guard lock(m_mutex);
  if (mode == AllocMode::Open) {
    char* buffer = m_open.Open(size, level);
    if (buffer == nullptr) return zel::result::OutOfMemory;
    record->buffer = buffer;
    return zel::result::NoError;
  }

  if (!m_open.Contains(record->buffer)) return zel::result::InvalidArgument;
  switch (m_growth.load(std::memory_order_relaxed)) {
    case Growth::Grant:
      break;
    case Growth::RefuseKeep:
      return zel::result::OutOfMemory;
    case Growth::RefuseDrop:
      m_open.Discard(std::exchange(record->buffer, nullptr));
      return zel::result::OutOfMemory;
  }
  return m_open.Grow(record->buffer, size);
}

zel::result_t CollectingTracer::CommitLine(char* buffer, std::uint64_t length) {
  m_commitCount.fetch_add(1, std::memory_order_relaxed);
  std::lock_guard lock(m_mutex);
  const std::optional<std::uint32_t> level = m_open.Close(buffer);
  if (!level) {
    m_unknownCommits.fetch_add(1, std::memory_order_relaxed);
    return zel::result::InvalidArgument;
  }
  if (m_recording.load(std::memory_order_relaxed)) m_lines.push_back({*level, std::string(buffer, length)});
  std::free(buffer);
  return zel::result::NoError;
}

void CollectingTracer::ExposeLevelLimit(std::uint32_t limit) {
  SetLevelLimit(limit);
  m_exposeLimit.store(true, std::memory_order_release);
}

void CollectingTracer::SetLevelLimit(std::uint32_t limit) {
  std::atomic_ref<std::uint32_t>(m_limit).store(limit, std::memory_order_relaxed);
}

std::vector<CollectingTracer::Line> CollectingTracer::Lines() const {
  std::lock_guard lock(m_mutex);
  return m_lines;
}

std::vector<std::string> CollectingTracer::Texts() const {
  std::lock_guard lock(m_mutex);
  std::vector<std::string> texts;
  texts.reserve(m_lines.size());
  for (const Line& line : m_lines) texts.push_back(line.text);
  return texts;
}

std::vector<CollectingTracer::AllocCall> CollectingTracer::AllocCalls() const {
  std::lock_guard lock(m_mutex);
  return m_allocCalls;
}

std::size_t CollectingTracer::OpenLines() const {
  std::lock_guard lock(m_mutex);
  return m_open.Count();
}

void CollectingTracer::Clear() {
  std::lock_guard lock(m_mutex);
  m_lines.clear();
  m_allocCalls.clear();
  m_allocCount.store(0, std::memory_order_relaxed);
  m_commitCount.store(0, std::memory_order_relaxed);
  m_unknownCommits.store(0, std::memory_order_relaxed);
}

}  // namespace host
