// acctl demo: the application start log dispatcher with two printing sinks.
#include <cstdio>

#include "app_control/interfaces/iapplication_start_log_events.h"
#include "host/cli/cli.h"
#include "host/module/module_loader.h"
#include "host/services/counting_allocator.h"
#include "host/services/host_object.h"
#include "host/services/service_locator.h"
#include "host/services/stderr_tracer.h"

namespace host::cli {
namespace {

constexpr std::uint32_t kDispatcherClass = 0xA17CCC95;

// Prints each event it receives; owned by main, counts are bookkeeping.
class PrintingSink final : public OwnedObject<PrintingSink, app_ctrl::IApplicationStartLogEvents> {
 public:
  explicit PrintingSink(const char* name) : m_name(name) {}
  zel::result_t OnApplicationStartLogged(const void* e) override { return Print("start logged", e); }
  zel::result_t OnApplicationStartBacklog(const void* e) override { return Print("backlog", e); }
  zel::result_t OnApplicationStartLogLost(const void* e) override { return Print("log lost", e); }

 private:
  zel::result_t Print(const char* what, const void* arg) {
    std::printf("  %-6s <- %s (%s)\n", m_name, what, static_cast<const char*>(arg));
    return 0;
  }
  const char* m_name;
};

int Demo(host::LoadedModule& module, std::uint32_t traceLevel) {
  host::CountingAllocator allocator;
  host::StderrTracer tracer(traceLevel);
  host::ServiceLocator locator;
  locator.Register<zel::IAllocator>(&allocator);
  locator.Register<zel::ITracer>(&tracer);

  zel::IObjectFactory* factory = nullptr;
  zel::result_t r = module.GetObjectFactory(&locator, kDispatcherClass, &factory);
  if (ZEL_FAILED(r)) return Fail("zelGetObjectFactory", r);
  void* out = nullptr;
  r = factory->CreateInstance(&locator, app_ctrl::IApplicationStartLogEventsSubscription::iid, &out);
  factory->Release();
  if (ZEL_FAILED(r)) return Fail("CreateInstance", r);
  auto* subscription = static_cast<app_ctrl::IApplicationStartLogEventsSubscription*>(out);
  r = subscription->QueryInterface(app_ctrl::IApplicationStartLogEvents::iid, &out);
  if (ZEL_FAILED(r)) {
    subscription->Release();
    return Fail("QueryInterface", r);
  }
  auto* events = static_cast<app_ctrl::IApplicationStartLogEvents*>(out);

  PrintingSink audit("audit"), console("console");
  subscription->Subscribe(&audit);
  subscription->Subscribe(&console);
  std::printf("dispatcher created; two sinks subscribed\n");
  events->OnApplicationStartLogged("/usr/bin/true");
  events->OnApplicationStartBacklog("3 earlier starts");
  subscription->Unsubscribe(&audit);
  std::printf("audit unsubscribed\n");
  events->OnApplicationStartLogLost("buffer overflow");

  events->Release();
  subscription->Release();
  std::printf("module objects alive: %s; allocator blocks outstanding: %lld\n",
              module.CanUnload() == 0 ? "none" : "some", static_cast<long long>(allocator.LiveBlocks()));
  return module.CanUnload() == 0 && allocator.LiveBlocks() == 0 ? 0 : 1;
}

}  // namespace

int RunDemo(const GlobalOptions& options, const std::vector<std::string>& args) {
  if (args.size() == 1 && (args[0] == "--help" || args[0] == "-h")) {
    std::fputs("usage: acctl demo\n  The module's start-log dispatcher with two printing sinks.\n", stdout);
    return 0;
  }
  if (!args.empty()) throw UsageError("demo: takes no arguments");
  host::LoadedModule module(options.modulePath);
  return Demo(module, options.traceLevel);
}

}  // namespace host::cli
