// zel::ITracer: the host's diagnostic line sink, and the TraceRecord that a
// trace site keeps on its stack while it owns a line buffer.
//
// Levels: lower is more severe. 300 failure, 500 failure that changes
// nothing, 700 notice, 800 entry/exit/progress, 1000 the ceiling.
#pragma once

#include <cstdint>

#include "zel/iobject.h"

namespace zel {

class ITracer;

namespace trace_level {
inline constexpr std::uint32_t Error = 300;
inline constexpr std::uint32_t Warning = 500;
inline constexpr std::uint32_t Notice = 700;
inline constexpr std::uint32_t Info = 800;
inline constexpr std::uint32_t Max = 1000;
}  // namespace trace_level

// The caller's handle on one open line. `buffer` is null when no line is
// open; `tracer` is set only after a buffer was granted (no reference held).
struct TraceRecord {
  char* buffer = nullptr;
  ITracer* tracer = nullptr;
};

class ITracer : public IObject {
 public:
  static constexpr iid_t iid = 0x6EF3329B;

  // Three modes. record null: is `level` wanted? record->buffer null: open a
  // line of at least `size` bytes and store it in record->buffer.
  // record->buffer set: grow that line to `size` bytes, moving it if needed,
  // and store the new address. Any non-zero result means "no line".
  virtual result_t AllocLine(std::uint32_t level, TraceRecord* record, std::uint64_t size) = 0;
  // Hands over a finished line of `length` bytes (no line break of its own).
  // From here on the buffer belongs to the tracer.
  virtual result_t CommitLine(char* buffer, std::uint64_t length) = 0;

 protected:
  ~ITracer() = default;
};

}  // namespace zel
