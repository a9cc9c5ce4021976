// host::CollectingTracer: a zel::ITracer for tests. It keeps every committed
// line with the level it was opened at, logs each AllocLine call (mode,
// level, size), and can be told to filter levels, to refuse growth, or to
// offer the level-limit interface with a limit the test changes at will.
//
// Owned by the test: reference counts are bookkeeping only. Safe for
// concurrent AllocLine/CommitLine.
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "host/services/host_object.h"
#include "host/services/internal/open_lines.h"
#include "zel/itracer.h"
#include "zel/trace/itrace_level_limit.h"

namespace host {

class CollectingTracer final : public OwnedObject<CollectingTracer, zel::ITracer, zel::trace::ITraceLevelLimit> {
 public:
  struct Line {
    std::uint32_t level;
    std::string text;
  };

  enum class AllocMode { Query, Open, Grow };
  struct AllocCall {
    AllocMode mode;
    std::uint32_t level;
    std::uint64_t size;
  };

  enum class Growth {
    Grant,
    RefuseKeep,  // refuse and leave the line with the caller
    RefuseDrop,  // refuse, take the line back and null the record's buffer
  };

  // Lines are refused above `levelFilter` (at open and query, never at growth).
  explicit CollectingTracer(std::uint32_t levelFilter = zel::trace_level::Max) : m_filter(levelFilter) {}
  CollectingTracer(const CollectingTracer&) = delete;
  CollectingTracer& operator=(const CollectingTracer&) = delete;

  // Answers 0 and ITracer; ITraceLevelLimit only after ExposeLevelLimit.
  zel::result_t QueryInterface(zel::iid_t iid, void** out) override;

  zel::result_t AllocLine(std::uint32_t level, zel::TraceRecord* record, std::uint64_t size) override;
  zel::result_t CommitLine(char* buffer, std::uint64_t length) override;
  const std::uint32_t* GetLevelLimit() override { return &m_limit; }

  // ---- test controls ------------------------------------------------------------
  void SetLevelFilter(std::uint32_t level) { m_filter.store(level, std::memory_order_relaxed); }
  void SetGrowth(Growth growth) { m_growth.store(growth, std::memory_order_relaxed); }
  // Growth beyond this many bytes is refused (as RefuseKeep) like a failed realloc.
  void SetMaxLineSize(std::uint64_t bytes) { m_maxLineSize.store(bytes, std::memory_order_relaxed); }
  // With false, calls and lines are only counted, not kept (long benchmark runs).
  void SetRecording(bool on) { m_recording.store(on, std::memory_order_relaxed); }
  // Offers ITraceLevelLimit from now on, pointing at `limit`.
  void ExposeLevelLimit(std::uint32_t limit);
  // Changes the number behind GetLevelLimit, as a host does at any moment.
  void SetLevelLimit(std::uint32_t limit);

  // ---- observations --------------------------------------------------------------
  std::vector<Line> Lines() const;
  std::vector<std::string> Texts() const;
  std::vector<AllocCall> AllocCalls() const;
  std::uint64_t AllocLineCount() const { return m_allocCount.load(std::memory_order_relaxed); }
  std::uint64_t CommitLineCount() const { return m_commitCount.load(std::memory_order_relaxed); }
  // Buffers handed out and not committed yet.
  std::size_t OpenLines() const;
  // Commits of buffers this tracer never handed out (rejected, not freed).
  std::uint64_t UnknownCommits() const { return m_unknownCommits.load(std::memory_order_relaxed); }
  void Clear();

 private:
  std::atomic<std::uint32_t> m_filter;
  std::atomic<Growth> m_growth{Growth::Grant};
  std::atomic<std::uint64_t> m_maxLineSize{16u << 20};
  std::atomic<bool> m_exposeLimit{false};
  std::atomic<bool> m_recording{true};
  std::uint32_t m_limit = zel::trace_level::Max;  // written and read atomically
  std::atomic<std::uint64_t> m_allocCount{0};
  std::atomic<std::uint64_t> m_commitCount{0};
  std::atomic<std::uint64_t> m_unknownCommits{0};

  mutable std::mutex m_mutex;
  detail::OpenLines m_open;
  std::vector<Line> m_lines;
  std::vector<AllocCall> m_allocCalls;
};

}  // namespace host
