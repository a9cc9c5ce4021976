// Cost of a trace site. A level that is off costs, through a handle that
// knows the tracer's limit, a load and a compare: no call and no reference
// count; through a plain tracer pointer, one virtual call. A short line that
// is on is one grant, a few appends and a commit; through a prefix tracer the
// prefix adds one forwarding call and a short copy at commit, never a move of
// the text.
#include <benchmark/benchmark.h>

#include <cstdint>

#include "host/services/collecting_tracer.h"
#include "host/services/service_locator.h"
#include "tov_tracing/prefix_tracer.h"
#include "tov_tracing/tracer_provider.h"
#include "zel/trace/trace_stream.h"

namespace {

// The host side of every case: a tracer that only counts, behind a locator.
struct TraceHost {
  host::CollectingTracer tracer;
  host::ServiceLocator locator;
  TraceHost() {
    tracer.SetRecording(false);
    locator.Register<zel::ITracer>(&tracer);
  }
};

// A class that traces with its own name, as the module's classes do.
class Site : public zel::TracerProvider {
 public:
  explicit Site(zel::IServiceLocator* sl) : zel::TracerProvider(sl, "AppControlTaskCallbacks") {}
};

// The site itself: one line at 800 with a number, as "Task started" writes it.
template <class Target>
void TraceLoop(benchmark::State& state, TraceHost& host, Target target) {
  std::uint64_t sessionId = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(target);
    ZEL_TRACE(target, zel::trace_level::Info) << "Task started, session id: " << ++sessionId;
  }
  state.counters["host_calls"] = static_cast<double>(host.tracer.AllocLineCount());
  state.counters["commits"] = static_cast<double>(host.tracer.CommitLineCount());
}

// The host's limit (700) is below the site's level.
void BM_TraceSiteDisabled(benchmark::State& state) {
  TraceHost host;
  host.tracer.ExposeLevelLimit(zel::trace_level::Notice);
  TraceLoop(state, host, zel::trace::MakeTraceHandle(&host.tracer));
}
BENCHMARK(BM_TraceSiteDisabled);

// A bare tracer pointer: the tracer itself says no, behind one virtual call.
void BM_TraceSiteDisabledPlainPointer(benchmark::State& state) {
  TraceHost host;
  host.tracer.SetLevelFilter(zel::trace_level::Notice);
  TraceLoop(state, host, static_cast<zel::ITracer*>(&host.tracer));
}
BENCHMARK(BM_TraceSiteDisabledPlainPointer);

void BM_TraceSiteEnabledShortLine(benchmark::State& state) {
  TraceHost host;
  TraceLoop(state, host, static_cast<zel::ITracer*>(&host.tracer));
}
BENCHMARK(BM_TraceSiteEnabledShortLine);

// The host's limit (800) is read at each line, as a class's site sees it.
void BM_TraceSitePrefixTracer(benchmark::State& state) {
  TraceHost host;
  host.tracer.ExposeLevelLimit(zel::trace_level::Info);
  const Site site(&host.locator);
  TraceLoop(state, host, site.GetTracer());
}
BENCHMARK(BM_TraceSitePrefixTracer);

// A level above the host's limit never reaches the prefix tracer or the host.
void BM_TraceSitePrefixTracerDisabled(benchmark::State& state) {
  TraceHost host;
  host.tracer.ExposeLevelLimit(zel::trace_level::Notice);
  const Site site(&host.locator);
  TraceLoop(state, host, site.GetTracer());
}
BENCHMARK(BM_TraceSitePrefixTracerDisabled);

}  // namespace
