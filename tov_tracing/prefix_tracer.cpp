#include "tov_tracing/prefix_tracer.h"

#include <cstring>
#include <limits>
#include <utility>

#include "zel/rtl/error_handling/checks.h"
#include "zel/trace/itrace_level_limit.h"

namespace zel::trace {

namespace {

constexpr std::uint32_t kNoLevelLimit = PrefixTracer::kDefaultLevelLimit;
constexpr std::string_view kSeparator = "::";

// The level limit the host offers with `tracer`, or the constant default.
const std::uint32_t* LevelLimitOf(ITracer* tracer) noexcept {
  void* face = nullptr;
  if (ZEL_FAILED(tracer->QueryInterface(ITraceLevelLimit::iid, &face)) || face == nullptr) return &kNoLevelLimit;
  RefPtr<ITraceLevelLimit> limit = RefPtr<ITraceLevelLimit>::Adopt(static_cast<ITraceLevelLimit*>(face));
  // The pointer belongs to the tracer, which outlives this reference.
  const std::uint32_t* p = limit->GetLevelLimit();
  return p != nullptr ? p : &kNoLevelLimit;
}

// Steps down through prefix tracers whose prefix is a class scope ("X::"),
// to the tracer a new class prefix should stand on.
RefPtr<ITracer> SkipEnclosingPrefixes(RefPtr<ITracer> tracer) noexcept {
  for (;;) {
    void* face = nullptr;
    if (ZEL_FAILED(tracer->QueryInterface(IPrefixTracer::iid, &face)) || face == nullptr) return tracer;
    RefPtr<IPrefixTracer> prefixed = RefPtr<IPrefixTracer>::Adopt(static_cast<IPrefixTracer*>(face));
    const char* prefix = prefixed->GetPrefix();
    if (prefix == nullptr || !std::string_view(prefix).ends_with(kSeparator)) return tracer;
    ITracer* under = prefixed->GetTracer();
    if (under == nullptr || under == tracer.Get()) return tracer;
    tracer = RefPtr<ITracer>(under);  // referenced before `prefixed` lets go
  }
}

}  // namespace

PrefixTracer::PrefixTracer(RefPtr<ITracer> tracer, const std::uint32_t* levelLimit, std::string_view prefix)
    : m_tracer(std::move(tracer)), m_levelLimit(levelLimit != nullptr ? levelLimit : &kNoLevelLimit), m_prefix(prefix) {}

result_t PrefixTracer::AllocLine(std::uint32_t level, TraceRecord* record, std::uint64_t size) {
  if (record == nullptr) return m_tracer->AllocLine(level, record, size);
  // Only a new line is subject to the limit; a growing one was already wanted.
  if (record->buffer == nullptr && level > LevelLimit()) return result::NotMatched;

  const std::uint64_t shift = m_prefix.size();
  if (size > std::numeric_limits<std::uint64_t>::max() - shift) return result::OutOfMemory;  // would wrap
  TraceRecord local;
  local.buffer = record->buffer != nullptr ? record->buffer - shift : nullptr;
  local.tracer = m_tracer.Get();
  const result_t r = m_tracer->AllocLine(level, &local, size != 0 ? size + shift : 0);
  record->buffer = local.buffer != nullptr ? local.buffer + shift : nullptr;
  return r;
}

result_t PrefixTracer::CommitLine(char* buffer, std::uint64_t length) {
  if (buffer == nullptr) return m_tracer->CommitLine(buffer, length);
  const std::size_t shift = m_prefix.size();
  char* line = buffer - shift;
  std::memcpy(line, m_prefix.data(), shift);
  return m_tracer->CommitLine(line, length + shift);
}

PrefixTracerSetUp SetUpPrefixTracer(IServiceLocator* serviceLocator, std::size_t prefixLength, const char* prefix) {
  RefPtr<ITracer> tracer;
  result_t r = serviceLocator != nullptr ? GetInterface(serviceLocator, tracer.Ref()) : result::InvalidArgument;
  if (ZEL_SUCCEEDED(r) && !tracer) r = result::InvalidArgument;  // a locator that says yes and gives nothing
  ZEL_CHECK_RESULT_THROW(r);

  tracer = SkipEnclosingPrefixes(std::move(tracer));

  basic_string_t<char> text;
  text.reserve(prefixLength + kSeparator.size());
  text.append(prefix, prefixLength);
  text.append(kSeparator);

  const std::uint32_t* levelLimit = LevelLimitOf(tracer.Get());
  PrefixTracer* created = detail::CreateObjectImplWith<PrefixTracer, abi_v2_allocator>(
      std::move(tracer), levelLimit, std::string_view(text));
  return {RefPtr<ITracer>::Adopt(static_cast<ITracer*>(created)), levelLimit};
}

RefPtr<ITracer> MakePrefixTracer(IServiceLocator* serviceLocator, std::size_t prefixLength, const char* prefix) {
  return SetUpPrefixTracer(serviceLocator, prefixLength, prefix).tracer;
}

TraceHandle MakeTraceHandle(ITracer* tracer) noexcept {
  if (tracer == nullptr) return {};
  return {tracer, LevelLimitOf(tracer)};
}

}  // namespace zel::trace
