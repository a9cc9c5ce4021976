// The whole inventory scan (the module's task over the host's file services,
// engine, key-value store and categories) on a generated tree of 100 000
// files of 512 bytes in 5 000 directories, each measured beside the tool
// that does the same job, in the same run:
//
//   ScanHashingOff      beside  FindFiles      (find ROOT -type f)          goal <= 2.5x
//   ScanHashingOnCold   beside  Sha256sum      (find | xargs sha256sum)     goal <= 1.2x
//   ScanHashingOnWarm   beside  ScanHashingOff (second scan, hash cache)    goal <= 1.3x
//
// OpenEachFile is the floor under any scan that must look into every file
// (the format test reads each regular file before it is judged): the same
// walk as find, plus an open, one read and a close of each file, and
// nothing else; set beside FindFiles it says how close to find a scan can
// come at all.
//
// Every scan removes the previous inventory and stores its records (100k
// RemoveValue and a Commit, 100k AddInfo and a Flush to SQLite). The
// tree is generated once, outside any timed region, and kept for later runs;
// the page cache is warm for every measurement. Tracing at level 300 only.
// cpu_ms is the CPU time of one iteration (the scan's threads, or the tool's
// processes), which a loaded machine blurs less than the wall time.
#include <benchmark/benchmark.h>
#include <dirent.h>
#include <fcntl.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <memory>
#include <string>

#include "app_control/interfaces/iinventory_scan_task_construct.h"
#include "app_control/interfaces/iinventory_storage.h"
#include "app_control/interfaces/itask.h"
#include "app_control/module_entry.h"
#include "host/engine/engine_services.h"
#include "host/files/file_services.h"
#include "host/serialization/serialization_services.h"
#include "host/services/categories_manager.h"
#include "host/services/collecting_tracer.h"
#include "host/services/counting_allocator.h"
#include "host/services/service_locator.h"
#include "host/services/service_manager.h"
#include "host/storage/key_value_store.h"
#include "tov_common/categories/category_descriptors.h"
#include "tov_common/inventory/application_info.h"
#include "tov_common/settings/settings_descriptors.h"
#include "zel/rtl/objclient.h"

extern char** environ;

namespace {

constexpr int kTopDirs = 50;
constexpr int kSubDirs = 100;    // per top directory: 5 000 in all
constexpr int kFilesPerDir = 20;  // 100 000 files in all
constexpr std::size_t kFileBytes = 512;
const char* const kRoot = "/tmp/ac_bench_scan_tree_100k";
constexpr std::uint32_t kSession = 5;

void MakeTree() {
  const std::string marker = std::string(kRoot) + "/.complete";
  if (::access(marker.c_str(), F_OK) == 0) return;
  std::filesystem::remove_all(kRoot);
  ::mkdir(kRoot, 0755);
  std::string content(kFileBytes, 'x');
  content.replace(0, 10, "#!/bin/sh\n");
  for (int t = 0; t < kTopDirs; ++t) {
    for (int s = 0; s < kSubDirs; ++s) {
      const std::string dir = std::string(kRoot) + "/top" + std::to_string(t) + "/sub" + std::to_string(s);
      std::filesystem::create_directories(dir);
      for (int f = 0; f < kFilesPerDir; ++f) {
        // Each file's content differs, so no two share a hash.
        const std::string tag = std::to_string(t) + "/" + std::to_string(s) + "/" + std::to_string(f);
        std::string body = content;
        body.replace(10, tag.size(), tag);
        const std::string path = dir + "/file" + std::to_string(f) + ".sh";
        const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
        if (fd >= 0) {
          (void)!::write(fd, body.data(), body.size());
          ::close(fd);
        }
      }
    }
  }
  const int done = ::open(marker.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
  if (done >= 0) ::close(done);
}

// CPU seconds of this process (all its threads), beside the wall time that
// the shared machine's load blurs.
double ProcessCpuSeconds() {
  struct timespec t {};
  ::clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &t);
  return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) * 1e-9;
}

// CPU seconds of the waited-for children (the tools run beside the scans).
double ChildrenCpuSeconds() {
  struct rusage usage {};
  ::getrusage(RUSAGE_CHILDREN, &usage);
  const auto seconds = [](const struct timeval& t) { return static_cast<double>(t.tv_sec) + t.tv_usec * 1e-6; };
  return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

// Average CPU time of one iteration, in ms, as the counter cpu_ms.
class CpuMeter {
 public:
  explicit CpuMeter(benchmark::State& state, double (*clock)() = ProcessCpuSeconds) : m_state(state), m_clock(clock) {}
  void Start() { m_began = m_clock(); }
  void Stop() { m_total += m_clock() - m_began; }
  ~CpuMeter() {
    if (m_state.iterations() > 0)
      m_state.counters["cpu_ms"] = 1000.0 * m_total / static_cast<double>(m_state.iterations());
  }

 private:
  benchmark::State& m_state;
  double (*m_clock)();
  double m_began = 0;
  double m_total = 0;
};

// Files the engine hashed in one scan, on average.
double HashedPerScan(const benchmark::State& state, std::uint64_t hashed) {
  return state.iterations() > 0 ? static_cast<double>(hashed) / static_cast<double>(state.iterations()) : 0;
}

int Shell(const std::string& command) {
  pid_t pid = 0;
  const char* argv[] = {"sh", "-c", command.c_str(), nullptr};
  if (::posix_spawn(&pid, "/bin/sh", nullptr, nullptr, const_cast<char**>(argv), environ) != 0) return -1;
  int status = 0;
  ::waitpid(pid, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// Every host service the scan reaches, as the service process would have them.
struct ScanHost {
  ScanHost() : dir(MakeDir()) {
    locator.Register<zel::IAllocator>(&allocator);
    locator.Register<zel::ITracer>(&tracer);
    tracer.SetRecording(false);
    serialization = host::RegisterSerializationServices(locator);
    for (const zel::TypeDescriptor* d : tov::settings::SettingsRecordDescriptors())
      serialization.metaInfo->RegisterDescriptor(d);
    for (const zel::TypeDescriptor* d : tov::tools::CategoryExpressionDescriptors())
      serialization.metaInfo->RegisterDescriptor(d);
    for (const zel::TypeDescriptor* d : tov::InventoryRecordDescriptors()) serialization.metaInfo->RegisterDescriptor(d);
    zel::IMetaInfoProvider* moduleRecords = nullptr;
    zel::IObjectFactory* factory = nullptr;
    if (tov::app_control::GetObjectFactory(&locator, tov::app_control::kTypeDescriptorStaticRegistryClassId,
                                           &factory) == 0) {
      factory->CreateInstance(&locator, zel::IMetaInfoProvider::iid, reinterpret_cast<void**>(&moduleRecords));
      factory->Release();
    }
    registry = zel::RefPtr<zel::IMetaInfoProvider>::Adopt(moduleRecords);
    serialization.metaInfo->RegisterProvider(registry.Get());

    const std::string db = dir + "/state.db";
    serviceManager.Open(db);
    categories.Open(db);
    store.Open(db);
    locator.Register<app_core::facade::IServiceManager>(&serviceManager);
    locator.Register<ICategoriesManager>(&categories);
    locator.Register<app_core::component::IKeyValueStorage>(&store);
    host::RegisterFileServices(locator, files);
    host::EngineServicesOptions options;
    options.hashCacheCapacity = 1 << 17;  // the whole tree
    engine = std::make_unique<host::EngineServices>(options);
    host::RegisterEngineServices(locator, *engine);
    TaskDescription task;
    task.taskId = 22;
    task.taskName = zel::wstring_t(u"Inventory_Scan");
    task.taskType = zel::wstring_t(u"InventoryScan");
    task.sessionId = kSession;
    engine->tasks.Add(task, std::string());

    storage = Create<tov::app_control::IInventoryStorage>(tov::app_control::kInventoryStorageClassId);
    locator.Register<tov::app_control::IInventoryStorage>(storage.Get());
  }
  ~ScanHost() {
    locator.Remove(tov::app_control::IInventoryStorage::iid);
    storage.Reset();
    host::UnregisterEngineServices(locator);
    engine.reset();
    host::UnregisterFileServices(locator);
    for (zel::iid_t iid : {app_core::component::IKeyValueStorage::iid, ICategoriesManager::iid,
                           app_core::facade::IServiceManager::iid}) {
      locator.Remove(iid);
    }
    serialization.metaInfo->UnregisterProvider(registry.Get());
    registry.Reset();
    store.Close();
    categories.Close();
    serviceManager.Close();
    std::filesystem::remove_all(dir);
  }

  template <class I>
  zel::RefPtr<I> Create(std::uint32_t classId) {
    zel::IObjectFactory* factory = nullptr;
    if (tov::app_control::GetObjectFactory(&locator, classId, &factory) != 0) return nullptr;
    void* out = nullptr;
    factory->CreateInstance(&locator, I::iid, &out);
    factory->Release();
    return zel::RefPtr<I>::Adopt(static_cast<I*>(out));
  }

  // One whole run; false when the scan failed or stored the wrong number.
  bool Scan() {
    auto task = Create<app_core::task_manager::task::ITask>(tov::app_control::kInventoryScanTaskClassId);
    if (!task) return false;
    zel::RefPtr<tov::app_control::IInventoryScanTaskConstruct> construct;
    task->QueryInterface(tov::app_control::IInventoryScanTaskConstruct::iid, reinterpret_cast<void**>(construct.Ref()));
    tov::settings::InventoryScanSettings settings;
    settings.scanScopes[0].path = zel::string_t(kRoot);
    construct->Construct(&settings);
    const std::size_t before = engine->taskStops.Count();
    if (task->Start(kSession, &engine->taskStops) != 0) return false;
    const auto notice = engine->taskStops.WaitFor(before + 1, std::chrono::minutes(30));
    task->Stop();
    return notice.has_value() && notice->result == 0;
  }

  static std::string MakeDir() {
    char pattern[] = "/tmp/inventory_scan_bench_XXXXXX";
    return ::mkdtemp(pattern);
  }

  std::string dir;
  host::CountingAllocator allocator;
  host::CollectingTracer tracer{zel::trace_level::Error};
  host::ServiceLocator locator;
  host::SerializationServices serialization;
  zel::RefPtr<zel::IMetaInfoProvider> registry;
  host::ServiceManager serviceManager;
  host::CategoriesManager categories{&locator};
  host::KeyValueStore store;
  host::FileServices files;
  std::unique_ptr<host::EngineServices> engine;
  zel::RefPtr<tov::app_control::IInventoryStorage> storage;
};

ScanHost& Host() {
  static ScanHost host;
  return host;
}

void FindFiles(benchmark::State& state) {
  MakeTree();
  CpuMeter cpu(state, ChildrenCpuSeconds);
  for (auto _ : state) {
    cpu.Start();
    if (Shell(std::string("find ") + kRoot + " -type f >/dev/null") != 0) state.SkipWithError("find failed");
    cpu.Stop();
  }
  state.counters["files/s"] = benchmark::Counter(kTopDirs * kSubDirs * kFilesPerDir, benchmark::Counter::kIsRate);
}

// Walks below the open directory `dir` (which it closes) by d_type, and
// opens, reads and closes each regular file; the count of files seen.
long OpenEachBelow(int dir) {
  DIR* stream = ::fdopendir(dir);
  if (stream == nullptr) {
    ::close(dir);
    return 0;
  }
  long files = 0;
  while (const dirent* entry = ::readdir(stream)) {
    if (entry->d_name[0] == '.') continue;
    if (entry->d_type == DT_DIR) {
      const int child = ::openat(::dirfd(stream), entry->d_name, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
      if (child >= 0) files += OpenEachBelow(child);
    } else if (entry->d_type == DT_REG) {
      const int fd = ::openat(::dirfd(stream), entry->d_name, O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
      if (fd < 0) continue;
      char head[4096];
      if (::pread(fd, head, sizeof head, 0) > 0) ++files;
      ::close(fd);
    }
  }
  ::closedir(stream);
  return files;
}

void OpenEachFile(benchmark::State& state) {
  MakeTree();
  CpuMeter cpu(state);
  for (auto _ : state) {
    cpu.Start();
    const long files = OpenEachBelow(::open(kRoot, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    cpu.Stop();
    if (files != kTopDirs * kSubDirs * kFilesPerDir) state.SkipWithError("not every file was read");
  }
  state.counters["files/s"] = benchmark::Counter(kTopDirs * kSubDirs * kFilesPerDir, benchmark::Counter::kIsRate);
}

void ScanHashingOff(benchmark::State& state) {
  MakeTree();
  ScanHost& host = Host();
  host.engine->engine.SetContentHashing(false);
  // Untimed, as for the warm scan: every timed scan then finds the store
  // holding a whole inventory, which its Clear removes.
  if (!host.Scan()) state.SkipWithError("first scan failed");
  CpuMeter cpu(state);
  for (auto _ : state) {
    cpu.Start();
    if (!host.Scan()) state.SkipWithError("scan failed");
    cpu.Stop();
  }
  host.engine->engine.SetContentHashing(true);
  state.counters["files/s"] = benchmark::Counter(kTopDirs * kSubDirs * kFilesPerDir, benchmark::Counter::kIsRate);
}

void Sha256sum(benchmark::State& state) {
  MakeTree();
  CpuMeter cpu(state, ChildrenCpuSeconds);
  for (auto _ : state) {
    cpu.Start();
    if (Shell(std::string("find ") + kRoot + " -type f -print0 | xargs -0 sha256sum >/dev/null") != 0)
      state.SkipWithError("sha256sum failed");
    cpu.Stop();
  }
  state.counters["files/s"] = benchmark::Counter(kTopDirs * kSubDirs * kFilesPerDir, benchmark::Counter::kIsRate);
}

void ScanHashingOnCold(benchmark::State& state) {
  MakeTree();
  ScanHost& host = Host();
  CpuMeter cpu(state);
  const std::uint64_t hashedBefore = host.engine->engine.HashesComputed();
  for (auto _ : state) {
    state.PauseTiming();
    host.engine->engine.Hashes().Clear();
    state.ResumeTiming();
    cpu.Start();
    if (!host.Scan()) state.SkipWithError("scan failed");
    cpu.Stop();
  }
  state.counters["hashed"] = HashedPerScan(state, host.engine->engine.HashesComputed() - hashedBefore);
  state.counters["files/s"] = benchmark::Counter(kTopDirs * kSubDirs * kFilesPerDir, benchmark::Counter::kIsRate);
}

void ScanHashingOnWarm(benchmark::State& state) {
  MakeTree();
  ScanHost& host = Host();
  host.engine->engine.Hashes().Clear();
  if (!host.Scan()) state.SkipWithError("first scan failed");  // fills the cache, untimed
  CpuMeter cpu(state);
  const std::uint64_t hashedBefore = host.engine->engine.HashesComputed();
  for (auto _ : state) {
    cpu.Start();
    if (!host.Scan()) state.SkipWithError("scan failed");
    cpu.Stop();
  }
  // A warm scan hashes nothing: every file is answered from the cache.
  state.counters["hashed"] = HashedPerScan(state, host.engine->engine.HashesComputed() - hashedBefore);
  state.counters["files/s"] = benchmark::Counter(kTopDirs * kSubDirs * kFilesPerDir, benchmark::Counter::kIsRate);
}

}  // namespace

BENCHMARK(FindFiles)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(3);
BENCHMARK(OpenEachFile)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(3);
BENCHMARK(ScanHashingOff)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(3);
BENCHMARK(Sha256sum)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(3);
BENCHMARK(ScanHashingOnCold)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(3);
BENCHMARK(ScanHashingOnWarm)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(3);
