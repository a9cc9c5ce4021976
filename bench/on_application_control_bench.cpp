// Cost of turning one engine verdict into a published event: the callback
// of the application control task with every host service answering (18
// fields) and a publisher that only looks at the event, so the module's own
// work shows. Reports events per second and heap blocks per event; entry
// traces are off, as in production.
#include <benchmark/benchmark.h>

#include <malloc.h>

#include <atomic>
#include <cstdint>
#include <cstdlib>

#include "app_control/app_control_task.h"
#include "app_control/module_entry.h"
#include "host/services/collecting_tracer.h"
#include "host/services/counting_allocator.h"
#include "host/services/host_object.h"
#include "host/services/service_locator.h"
#include "tests/support/app_control_task_services.h"

// Every heap block of this program, counted while a measurement asks for it.
namespace {
std::atomic<bool> g_countMallocs{false};
std::atomic<std::uint64_t> g_mallocs{0};
}  // namespace

// A sanitizer brings its own malloc; there the count stays 0.
#if !defined(__SANITIZE_ADDRESS__)
extern "C" {
void* __libc_malloc(std::size_t size);  // NOLINT: glibc's own entry
void* malloc(std::size_t size) {        // NOLINT: interposed for counting
  if (g_countMallocs.load(std::memory_order_relaxed)) g_mallocs.fetch_add(1, std::memory_order_relaxed);
  return __libc_malloc(size);
}
}
#endif

namespace {

namespace ac = tov::app_control;

class CountingPublisher final : public host::OwnedObject<CountingPublisher, tov::INonRemoteEventPublisher> {
 public:
  zel::result_t PublishEvent(tov::RuntimeEvent* event) override {
    benchmark::DoNotOptimize(event->runtimeFields.size());
    ++published;
    return 0;
  }
  std::uint64_t published = 0;
};

void BM_OnApplicationControl(benchmark::State& state) {
  testsupport::AppControlTaskServices services;
  host::CountingAllocator allocator;
  host::CollectingTracer tracer(zel::trace_level::Notice);  // entry lines off
  tracer.SetRecording(false);
  CountingPublisher publisher;
  host::ServiceLocator locator;
  locator.Register<zel::IAllocator>(&allocator);
  locator.Register<zel::ITracer>(&tracer);
  services.RegisterWith(locator, &publisher);
  services.processes.Add(500, 4321, 400, u"/usr/bin/firefox-esr");
  services.processes.Add(400, 1200, 1, u"/usr/bin/gnome-shell");

  tov::settings::AppControlSettings settings;
  void* arguments[2] = {&locator, &settings};
  zel::IObject* object = nullptr;
  if (ac::CreateObject(ac::kAppControlTaskClassId, arguments, &object) != 0) {
    state.SkipWithError("no task");
    return;
  }
  auto* task = static_cast<app_core::task_manager::task::ITask*>(object);
  if (task->Start(1, nullptr) != 0 || services.subscription.sinks.size() != 1) {
    state.SkipWithError("no subscription");
    task->Release();
    return;
  }
  app_ctrl::IEnterpriseApplicationControlEvents2* sink = services.subscription.sinks[0];

  app_ctrl::ApplicationStartInfo info;
  info.moduleId = 0x1234;
  info.userName = zel::wstring_t(u"WORKGROUP\\alice");
  info.userId = zel::wstring_t(u"1000");
  info.fileVersion = zel::wstring_t(u"115.3.1");
  info.fileHash = zel::wstring_t(u"9f86d081884c7d659a2feaa0c55ad015a3bf4f1b2b0b822cd15d6c15b0f00a08");
  info.fileName = zel::wstring_t(u"/usr/lib/firefox-esr/firefox-esr");
  info.certificateThumbprint = zel::wstring_t(u"");
  info.processUniqueId = 500;
  app_ctrl::ApplicationCategoryInfo category;
  category.productCategoryName = zel::wstring_t(u"Browsers");
  category.categoryName = zel::wstring_t(u"Web browsers");
  const std::int32_t verdict = static_cast<std::int32_t>(state.range(0));

  sink->OnApplicationControl(&info, &category, &verdict);  // fills the task description cache
  g_mallocs = 0;
  g_countMallocs = true;
  for (auto _ : state) {
    benchmark::DoNotOptimize(sink->OnApplicationControl(&info, &category, &verdict));
  }
  g_countMallocs = false;
  state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations()));
  state.counters["events_per_s"] = benchmark::Counter(static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
  state.counters["mallocs_per_event"] =
      static_cast<double>(g_mallocs.load()) / static_cast<double>(state.iterations());

  task->Stop();
  task->Release();
}
// 1: allowed and published; 0: built but not published.
BENCHMARK(BM_OnApplicationControl)->Arg(1)->Arg(0);

}  // namespace
