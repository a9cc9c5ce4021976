// Cost of one delivery through the start-log dispatcher: one lock, two
// atomic operations and the sink calls, whatever the number of sinks, and
// no allocation.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <vector>

#include "app_control/interfaces/iapplication_start_log_events.h"
#include "app_control/module_entry.h"
#include "host/services/counting_allocator.h"
#include "host/services/host_object.h"
#include "host/services/service_locator.h"
#include "zel/rtl/objclient.h"

namespace {

using app_ctrl::IApplicationStartLogEvents;
using app_ctrl::IApplicationStartLogEventsSubscription;

// Does as little as a sink can, so the dispatcher's own cost shows.
class NullSink final : public host::OwnedObject<NullSink, IApplicationStartLogEvents> {
 public:
  zel::result_t OnApplicationStartLogged(const void* e) override {
    benchmark::DoNotOptimize(e);
    return 0;
  }
  zel::result_t OnApplicationStartBacklog(const void*) override { return 0; }
  zel::result_t OnApplicationStartLogLost(const void*) override { return 0; }
};

void BM_DispatcherDelivery(benchmark::State& state) {
  host::CountingAllocator allocator;
  host::ServiceLocator locator;
  locator.Register<zel::IAllocator>(&allocator);

  zel::IObjectFactory* factory = nullptr;
  if (tov::app_control::GetObjectFactory(&locator, tov::app_control::kAppStartLogEventsDispatcherClassId,
                                         &factory) != 0) {
    state.SkipWithError("no factory");
    return;
  }
  void* out = nullptr;
  const zel::result_t r = factory->CreateInstance(&locator, IApplicationStartLogEventsSubscription::iid, &out);
  factory->Release();
  if (r != 0) {
    state.SkipWithError("no dispatcher");
    return;
  }
  auto subscription = zel::RefPtr<IApplicationStartLogEventsSubscription>::Adopt(
      static_cast<IApplicationStartLogEventsSubscription*>(out));
  subscription->QueryInterface(IApplicationStartLogEvents::iid, &out);
  auto events = zel::RefPtr<IApplicationStartLogEvents>::Adopt(static_cast<IApplicationStartLogEvents*>(out));

  std::vector<NullSink> sinks(static_cast<std::size_t>(state.range(0)));
  for (auto& s : sinks) subscription->Subscribe(&s);

  int event = 0;
  for (auto _ : state) benchmark::DoNotOptimize(events->OnApplicationStartLogged(&event));

  for (auto& s : sinks) subscription->Unsubscribe(&s);
}
BENCHMARK(BM_DispatcherDelivery)->Arg(1)->Arg(8);

}  // namespace
