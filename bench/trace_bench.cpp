// Cost of a trace site: a level that is off must cost one virtual call and
// no text work; a short line that is on is one grant, a few appends and a
// commit; through a prefix tracer the prefix adds one forwarding call and a
// short copy at commit, never a move of the text.
#include <benchmark/benchmark.h>

#include <cstdint>

#include "host/services/collecting_tracer.h"
#include "host/services/service_locator.h"
#include "zel/trace/prefix_tracer.h"
#include "zel/trace/trace_stream.h"

namespace {

void BM_TraceSiteDisabled(benchmark::State& state) {
  host::CollectingTracer tracer(zel::trace_level::Notice);
  tracer.SetRecording(false);
  zel::ITracer* t = &tracer;
  std::uint64_t sessionId = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(t);
    ZEL_TRACE(t, zel::trace_level::Info) << "Task started, session id: " << ++sessionId;
  }
  state.counters["commits"] = static_cast<double>(tracer.CommitLineCount());
}
BENCHMARK(BM_TraceSiteDisabled);

void BM_TraceSiteEnabledShortLine(benchmark::State& state) {
  host::CollectingTracer tracer;
  tracer.SetRecording(false);
  zel::ITracer* t = &tracer;
  std::uint64_t sessionId = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(t);
    ZEL_TRACE(t, zel::trace_level::Info) << "Task started, session id: " << ++sessionId;
  }
  state.counters["commits"] = static_cast<double>(tracer.CommitLineCount());
}
BENCHMARK(BM_TraceSiteEnabledShortLine);

// The host's limit (800) is read at each line, as a class's site sees it.
void BM_TraceSitePrefixTracer(benchmark::State& state) {
  host::CollectingTracer tracer;
  tracer.SetRecording(false);
  tracer.ExposeLevelLimit(zel::trace_level::Info);
  host::ServiceLocator locator;
  locator.Register<zel::ITracer>(&tracer);
  const zel::RefPtr<zel::ITracer> prefixed = zel::trace::MakePrefixTracer(&locator, 23, "AppControlTaskCallbacks");
  zel::ITracer* t = prefixed.Get();
  std::uint64_t sessionId = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(t);
    ZEL_TRACE(t, zel::trace_level::Info) << "Task started, session id: " << ++sessionId;
  }
  state.counters["commits"] = static_cast<double>(tracer.CommitLineCount());
}
BENCHMARK(BM_TraceSitePrefixTracer);

// A level above the prefix tracer's limit never reaches the host.
void BM_TraceSitePrefixTracerDisabled(benchmark::State& state) {
  host::CollectingTracer tracer;
  tracer.SetRecording(false);
  tracer.ExposeLevelLimit(zel::trace_level::Notice);
  host::ServiceLocator locator;
  locator.Register<zel::ITracer>(&tracer);
  const zel::RefPtr<zel::ITracer> prefixed = zel::trace::MakePrefixTracer(&locator, 23, "AppControlTaskCallbacks");
  zel::ITracer* t = prefixed.Get();
  std::uint64_t sessionId = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(t);
    ZEL_TRACE(t, zel::trace_level::Info) << "Task started, session id: " << ++sessionId;
  }
  state.counters["host_calls"] = static_cast<double>(tracer.AllocLineCount());
}
BENCHMARK(BM_TraceSitePrefixTracerDisabled);

}  // namespace
