// acctl: the reference host's command-line program. It loads the module
// the way the service process does and drives it through its entry points.
//
//   acctl [--module PATH] [--trace LEVEL] [demo]
//
// demo (the default): creates the start-log dispatcher, subscribes two
// printing sinks and delivers a few events through it. The module's trace
// lines go to stderr, up to LEVEL (700 unless given).
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <string>

#include "app_control/interfaces/iapplication_start_log_events.h"
#include "host/module/module_loader.h"
#include "host/services/counting_allocator.h"
#include "host/services/service_locator.h"
#include "host/services/stderr_tracer.h"

namespace {

constexpr std::uint32_t kDispatcherClass = 0xA17CCC95;

// Prints each event it receives; owned by main, counts are bookkeeping.
class PrintingSink final : public app_ctrl::IApplicationStartLogEvents {
 public:
  explicit PrintingSink(const char* name) : m_name(name) {}
  std::uint32_t AddRef() override { return ++m_refs; }
  std::uint32_t Release() override { return --m_refs; }
  zel::result_t QueryInterface(zel::iid_t iid, void** out) override {
    if (iid != 0 && iid != IApplicationStartLogEvents::iid) {
      *out = nullptr;
      return zel::result::InterfaceNotSupported;
    }
    AddRef();
    *out = static_cast<IApplicationStartLogEvents*>(this);
    return 0;
  }
  zel::result_t OnApplicationStartLogged(const void* e) override { return Print("start logged", e); }
  zel::result_t OnApplicationStartBacklog(const void* e) override { return Print("backlog", e); }
  zel::result_t OnApplicationStartLogLost(const void* e) override { return Print("log lost", e); }

 private:
  zel::result_t Print(const char* what, const void* arg) {
    std::printf("  %-6s <- %s (%s)\n", m_name, what, static_cast<const char*>(arg));
    return 0;
  }
  const char* m_name;
  std::uint32_t m_refs = 1;
};

int Fail(const char* step, zel::result_t r) {
  char text[zel::kMaxPrintedResult];
  const std::size_t n = zel::PrintResult(zel::FormatResult(r), text);
  std::fprintf(stderr, "acctl: %s failed: %.*s\n", step, static_cast<int>(n), text);
  return 1;
}

int RunDemo(host::LoadedModule& module, std::uint32_t traceLevel) {
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

void Usage() { std::fprintf(stderr, "usage: acctl [--module PATH] [--trace LEVEL] [demo]\n"); }

}  // namespace

int main(int argc, char** argv) {
  std::string modulePath = AC_DEFAULT_MODULE_PATH;
  if (const char* env = std::getenv("ACCTL_MODULE")) modulePath = env;
  std::string command = "demo";
  std::uint32_t traceLevel = zel::trace_level::Notice;
  for (int i = 1; i < argc; ++i) {
    if (std::strcmp(argv[i], "--module") == 0 && i + 1 < argc) {
      modulePath = argv[++i];
    } else if (std::strcmp(argv[i], "--trace") == 0 && i + 1 < argc) {
      char* end = nullptr;
      const unsigned long level = std::strtoul(argv[++i], &end, 10);
      if (*end != '\0' || level > zel::trace_level::Max) {
        Usage();
        return 2;
      }
      traceLevel = static_cast<std::uint32_t>(level);
    } else if (std::strcmp(argv[i], "--help") == 0 || std::strcmp(argv[i], "-h") == 0) {
      Usage();
      return 0;
    } else if (argv[i][0] != '-') {
      command = argv[i];
    } else {
      Usage();
      return 2;
    }
  }
  try {
    host::LoadedModule module(modulePath);
    if (command == "demo") return RunDemo(module, traceLevel);
    std::fprintf(stderr, "acctl: unknown command '%s'\n", command.c_str());
    Usage();
    return 2;
  } catch (const std::exception& e) {
    std::fprintf(stderr, "acctl: %s\n", e.what());
    return 1;
  }
}
