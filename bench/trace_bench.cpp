// Cost of a trace site: a level that is off must cost one virtual call and
// no text work; a short line that is on is one grant, a few appends and a
// commit.
#include <benchmark/benchmark.h>

#include <cstdint>

#include "host/services/collecting_tracer.h"
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

}  // namespace
