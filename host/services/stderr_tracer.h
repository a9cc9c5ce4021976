// host::StderrTracer: the command-line program's zel::ITracer. Writes each
// committed line, with its level, to stderr, and drops lines above its
// level filter. The filter is also offered as the level-limit interface, so
// prefix tracers see a change at once.
//
// Owned by the program: reference counts are bookkeeping only. Safe for
// concurrent AllocLine/CommitLine; each line is written whole.
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>

#include "host/services/host_object.h"
#include "host/services/internal/open_lines.h"
#include "zel/itracer.h"
#include "zel/trace/itrace_level_limit.h"

namespace host {

class StderrTracer final : public OwnedObject<StderrTracer, zel::ITracer, zel::trace::ITraceLevelLimit> {
 public:
  explicit StderrTracer(std::uint32_t levelFilter = zel::trace_level::Notice) : m_level(levelFilter) {}
  StderrTracer(const StderrTracer&) = delete;
  StderrTracer& operator=(const StderrTracer&) = delete;

  zel::result_t AllocLine(std::uint32_t level, zel::TraceRecord* record, std::uint64_t size) override;
  zel::result_t CommitLine(char* buffer, std::uint64_t length) override;
  const std::uint32_t* GetLevelLimit() override { return &m_level; }

  void SetLevelFilter(std::uint32_t level);
  std::uint32_t LevelFilter() const;

 private:
  // Lines longer than this are refused growth; a trace line has no business
  // being larger.
  static constexpr std::uint64_t kMaxLineSize = 1u << 20;

  mutable std::uint32_t m_level;  // written and read atomically
  std::mutex m_mutex;
  detail::OpenLines m_open;
};

}  // namespace host
