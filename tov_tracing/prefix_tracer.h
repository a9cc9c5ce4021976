// The product's prefix-tracer set-up: zel::trace::PrefixTracer, a tracer
// that puts a fixed prefix, such as "AppControlTaskCallbacks::", in front of
// every line of the tracer underneath; MakePrefixTracer, which builds one from
// a service locator; and MakeTraceHandle, which pairs a host tracer with the
// level limit it offers so that sites test the level inline.
//
// The prefix costs no copy of the text: every buffer asked from the tracer
// underneath is larger by the prefix length, the caller gets the address
// behind that room, and CommitLine writes the prefix into it. The level
// limit of the host is read at each new line only; a line that grows always
// passes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "zel/itracer.h"
#include "zel/rtl/objbase.h"
#include "zel/rtl/objclient.h"
#include "zel/trace/iprefix_tracer.h"
#include "zel/trace/trace_stream.h"
#include "zel/types/allocator.h"
#include "zel/types/string.h"

namespace zel::trace {

class PrefixTracer : public object::Ifaces<ITracer, IPrefixTracer> {
 public:
  // The limit in force when the tracer underneath has none.
  static constexpr std::uint32_t kDefaultLevelLimit = trace_level::Max;

  // `prefix` is written as given, its "::" included. `levelLimit` must stay
  // valid while `tracer` lives; null means kDefaultLevelLimit.
  PrefixTracer(RefPtr<ITracer> tracer, const std::uint32_t* levelLimit, std::string_view prefix);
  PrefixTracer(const PrefixTracer&) = delete;
  PrefixTracer& operator=(const PrefixTracer&) = delete;

  result_t AllocLine(std::uint32_t level, TraceRecord* record, std::uint64_t size) override;
  result_t CommitLine(char* buffer, std::uint64_t length) override;
  const char* GetPrefix() override { return m_prefix.c_str(); }
  ITracer* GetTracer() override { return m_tracer.Get(); }

 protected:
  ~PrefixTracer() = default;

 private:
  // The host may change the number at any moment.
  std::uint32_t LevelLimit() const noexcept { return __atomic_load_n(m_levelLimit, __ATOMIC_RELAXED); }

  RefPtr<ITracer> m_tracer;
  const std::uint32_t* m_levelLimit;
  basic_string_t<char> m_prefix;
};

// A new prefix tracer and the limit it applies to new lines, which stays
// valid for the tracer's life.
struct PrefixTracerSetUp {
  RefPtr<ITracer> tracer;
  const std::uint32_t* levelLimit;
};

// As MakePrefixTracer, also giving the limit, so that the owner can test
// levels inline through a TraceHandle{tracer, levelLimit}.
PrefixTracerSetUp SetUpPrefixTracer(IServiceLocator* serviceLocator, std::size_t prefixLength, const char* prefix);

// `tracer` with the level limit it offers, or with none; null gives a handle
// that traces nothing. Asks the tracer once; the handle holds no reference.
TraceHandle MakeTraceHandle(ITracer* tracer) noexcept;

// Builds a prefix tracer with `prefix` (its first `prefixLength` bytes)
// followed by "::" over the locator's tracer. Enclosing prefix tracers whose
// prefix ends in "::" are skipped, so a class's prefix replaces its owner's
// instead of being stacked on it. Throws CheckResultFailedException when the
// locator has no tracer.
RefPtr<ITracer> MakePrefixTracer(IServiceLocator* serviceLocator, std::size_t prefixLength, const char* prefix);

}  // namespace zel::trace
