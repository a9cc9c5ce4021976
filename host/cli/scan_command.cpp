// acctl scan: the inventory scan task of the module over the host's real file
// services, engine and store, with live progress, pause and resume by
// signal, and a summary. acctl inventory: what the scans stored.
//
// Progress is counted on the host's side of the module: the file factory
// sees every file the walk opens, the engine every file that passed the
// filter, the storage every record kept. The counting wrappers stand in the
// locator in front of the real services.
#include <fcntl.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <json/json.h>

#include "app_control/interfaces/ienterprise_application_controller.h"
#include "app_control/interfaces/iinventory_info_provider.h"
#include "app_control/interfaces/iinventory_scan_task_construct.h"
#include "app_control/interfaces/iinventory_storage.h"
#include "app_control/interfaces/itask.h"
#include "app_control/interfaces/itask_registry.h"
#include "app_control/interfaces/itask_try_mutex.h"
#include "app_control/module_entry.h"
#include "host/cli/cli.h"
#include "host/cli/host_session.h"
#include "host/cli/internal/arg_reader.h"
#include "host/cli/module_objects.h"
#include "host/cli/scan_settings_json.h"
#include "host/module/module_loader.h"
#include "host/services/host_object.h"
#include "zel/ifile_factory.h"
#include "zel/strings/conversions.h"

namespace host::cli {
namespace {

using app_core::task_manager::task::ITask;
using tov::settings::GoldenImageAction;
using tov::settings::InventoryScanSettings;

constexpr std::uint32_t kScanSession = 2;
constexpr std::uint64_t kScanTaskId = 22;

// ==== counting wrappers =========================================================

class CountingFileFactory final : public OwnedObject<CountingFileFactory, zel::IFileFactory> {
 public:
  explicit CountingFileFactory(zel::IFileFactory* inner) : m_inner(inner) {}
  zel::result_t CreateFile(const char16_t* path, std::uint32_t access, std::uint32_t share, std::uint32_t disposition,
                           std::uint32_t flags, zel::IIO** out) override {
    opened.fetch_add(1, std::memory_order_relaxed);
    return m_inner->CreateFile(path, access, share, disposition, flags, out);
  }
  std::atomic<std::uint64_t> opened{0};

 private:
  zel::RefPtr<zel::IFileFactory> m_inner;
};

class CountingController final : public OwnedObject<CountingController, app_ctrl::IEnterpriseApplicationController> {
 public:
  explicit CountingController(app_ctrl::IEnterpriseApplicationController* inner) : m_inner(inner) {}
  zel::result_t GetCategories(zel::types::vector_t<app_ctrl::Category>& categories) override {
    return m_inner->GetCategories(categories);
  }
  zel::result_t InventoryModule(zel::IIO* io, std::uint32_t flags, tov::ApplicationInfo& info) override {
    described.fetch_add(1, std::memory_order_relaxed);
    return m_inner->InventoryModule(io, flags, info);
  }
  std::atomic<std::uint64_t> described{0};

 private:
  zel::RefPtr<app_ctrl::IEnterpriseApplicationController> m_inner;
};

class CountingInventory final : public OwnedObject<CountingInventory, tov::app_control::IInventoryStorage> {
 public:
  explicit CountingInventory(tov::app_control::IInventoryStorage* inner) : m_inner(inner) {}
  zel::result_t AddInfo(const tov::ApplicationInfo& info) override {
    const zel::result_t r = m_inner->AddInfo(info);
    if (ZEL_SUCCEEDED(r)) stored.fetch_add(1, std::memory_order_relaxed);
    return r;
  }
  zel::result_t Clear() override {
    stored.store(0);
    const zel::result_t r = m_inner->Clear();
    cleared.store(true);
    return r;
  }
  // The task does not look at this result; acctl does.
  zel::result_t Flush() override {
    const zel::result_t r = m_inner->Flush();
    flushResult.store(r);
    flushed.store(true);
    return r;
  }
  std::atomic<std::uint64_t> stored{0};
  std::atomic<bool> cleared{false};
  std::atomic<bool> flushed{false};
  std::atomic<zel::result_t> flushResult{0};

 private:
  zel::RefPtr<tov::app_control::IInventoryStorage> m_inner;
};

// The task-type lock across acctl processes on one store: the host's own
// lock inside this process, and an flock on "<store>.<type>.lock" for the
// others.
class FileTaskTryMutex final : public OwnedObject<FileTaskTryMutex, ITaskTryMutex> {
 public:
  FileTaskTryMutex(ITaskTryMutex* inner, std::string prefix) : m_inner(inner), m_prefix(std::move(prefix)) {}
  ~FileTaskTryMutex() {
    for (auto& [type, fd] : m_files) ::close(fd);
  }
  zel::result_t TryLock(const zel::wstring_t& type) override {
    const zel::result_t r = m_inner->TryLock(type);
    if (ZEL_FAILED(r)) return r;
    const std::string path = m_prefix + "." + std::string(zel::Utf16ToUtf8(type.view()).view()) + ".lock";
    const int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (fd < 0 || ::flock(fd, LOCK_EX | LOCK_NB) != 0) {
      if (fd >= 0) ::close(fd);
      static_cast<void>(m_inner->Unlock(type));
      return zel::result::Locked;
    }
    std::lock_guard lock(m_mutex);
    m_files[std::u16string(type.view())] = fd;
    return zel::result::NoError;
  }
  zel::result_t IsLocked(const zel::wstring_t& type, bool& locked) override { return m_inner->IsLocked(type, locked); }
  zel::result_t Unlock(const zel::wstring_t& type) override {
    {
      std::lock_guard lock(m_mutex);
      const auto it = m_files.find(std::u16string(type.view()));
      if (it != m_files.end()) {
        ::close(it->second);  // drops the flock
        m_files.erase(it);
      }
    }
    return m_inner->Unlock(type);
  }

 private:
  zel::RefPtr<ITaskTryMutex> m_inner;
  std::string m_prefix;
  std::mutex m_mutex;
  std::map<std::u16string, int> m_files;
};

// ==== arguments =================================================================

struct ScanArgs {
  std::string settingsPath;
  std::vector<std::string> roots;
  std::vector<std::string> masks;
  std::optional<GoldenImageAction> golden;
  bool noFirstGroup = false;
  bool noSecondGroup = false;
  bool noExecBit = false;
  bool rehash = false;
  bool json = false;
  bool help = false;
  double interval = -1;  // seconds between progress lines; negative: the default
};

const char kScanUsage[] =
    "usage: acctl [--db PATH] scan [ROOT...] [--settings FILE] [--mask GLOB]... [--no-first-group]\n"
    "            [--no-second-group] [--no-exec-bit] [--golden-image add|remove] [--interval SECONDS] [--rehash] [--json]\n"
    "  Rebuilds the inventory from ROOTs (or the settings' scopes, or /usr/bin).\n"
    "  A file whose identity and times are as a previous scan saw them is not read\n"
    "  again: its hash comes from the store. --rehash reads and hashes every file.\n"
    "  SIGINT stops the scan (the inventory is left empty); SIGUSR1 or SIGTSTP pauses it,\n"
    "  SIGUSR2 or SIGCONT resumes it.\n";

ScanArgs ParseScanArgs(const std::vector<std::string>& args) {
  ScanArgs out;
  ArgReader r("scan", args);
  while (r.Next()) {
    if (r.Is("--settings")) {
      out.settingsPath = r.Value();
    } else if (r.Is("--mask")) {
      out.masks.push_back(r.Value());
      if (out.masks.back().empty()) r.Fail("--mask needs a non-empty glob");
    } else if (r.Is("--golden-image")) {
      const std::string& v = r.Value();
      if (v == "add") {
        out.golden = GoldenImageAction::Add;
      } else if (v == "remove") {
        out.golden = GoldenImageAction::Remove;
      } else if (v == "none") {
        out.golden = GoldenImageAction::None;
      } else {
        r.Fail("--golden-image takes add, remove or none, not '" + v + "'");
      }
    } else if (r.Is("--interval")) {
      const std::string& v = r.Value();
      char* end = nullptr;
      out.interval = std::strtod(v.c_str(), &end);
      if (v.empty() || *end != '\0' || !(out.interval > 0) || out.interval > 3600) r.Fail("bad --interval '" + v + "'");
    } else if (r.Is("--no-first-group")) {
      out.noFirstGroup = true;
    } else if (r.Is("--no-second-group")) {
      out.noSecondGroup = true;
    } else if (r.Is("--no-exec-bit")) {
      out.noExecBit = true;
    } else if (r.Is("--rehash")) {
      out.rehash = true;
    } else if (r.Is("--json")) {
      out.json = true;
    } else if (r.IsHelp()) {
      out.help = true;
    } else {
      if (r.Operand().empty()) r.Fail("an empty root");
      out.roots.push_back(r.Arg());
    }
  }
  return out;
}

InventoryScanSettings BuildSettings(const ScanArgs& args) {
  InventoryScanSettings settings;
  if (!args.settingsPath.empty()) settings = ScanSettingsFromJson(ReadFile(args.settingsPath), args.settingsPath);
  if (!args.roots.empty()) {
    settings.scanScopes.clear();
    for (const std::string& root : args.roots) {
      tov::settings::ScanScope& scope = settings.scanScopes.emplace_back();
      scope.name = zel::Utf8ToWide(root);
      scope.enabled = true;
      scope.path = zel::string_t(root.c_str());
    }
  }
  if (!args.masks.empty() || !args.roots.empty()) {
    for (tov::settings::ScanScope& scope : settings.scanScopes) {
      if (args.masks.empty() && !scope.masks.empty()) continue;
      scope.masks.clear();
      if (args.masks.empty()) scope.masks.push_back(zel::string_t("*"));
      for (const std::string& m : args.masks) scope.masks.push_back(zel::string_t(m.c_str()));
    }
  }
  if (args.noFirstGroup) settings.firstFormatGroupEnabled = false;
  if (args.noSecondGroup) settings.secondFormatGroupEnabled = false;
  if (args.noExecBit) settings.executableBitEnabled = false;
  if (args.golden) settings.goldenImageAction = *args.golden;
  return settings;
}

// Every enabled root must be a directory (or a link to one) now; the task
// itself would only trace a missing root.
void CheckRoots(const InventoryScanSettings& settings) {
  bool any = false;
  for (const tov::settings::ScanScope& scope : settings.scanScopes) {
    if (!scope.enabled) continue;
    any = true;
    struct stat st {};
    const std::string path(scope.path.view());
    if (::stat(path.c_str(), &st) != 0) throw UsageError("scan: " + path + ": " + std::strerror(errno));
    if (!S_ISDIR(st.st_mode)) throw UsageError("scan: " + path + ": not a directory");
  }
  if (!any) throw UsageError("scan: no enabled scope to scan");
}

// ==== progress ==================================================================

struct Counters {
  const CountingFileFactory& files;
  const CountingController& engine;
  const CountingInventory& inventory;

  std::uint64_t Seen() const { return files.opened.load(); }
  std::uint64_t Stored() const { return inventory.stored.load(); }
  std::uint64_t Skipped() const {
    const std::uint64_t seen = Seen(), stored = Stored();
    return seen > stored ? seen - stored : 0;
  }
};

class ProgressPrinter {
 public:
  ProgressPrinter(const Counters& counters, bool terminal, double interval)
      : m_counters(counters), m_terminal(terminal), m_interval(interval), m_start(Clock::now()), m_last(m_start) {}

  double Elapsed() const { return std::chrono::duration<double>(Clock::now() - m_start).count(); }

  void Tick(const char* state) {
    const auto now = Clock::now();
    if (std::chrono::duration<double>(now - m_last).count() < m_interval) return;
    m_last = now;
    Print(state);
  }

  void Print(const char* state) {
    const double elapsed = Elapsed();
    const std::uint64_t seen = m_counters.Seen();
    const double rate = elapsed > 0 ? static_cast<double>(seen) / elapsed : 0.0;
    std::fprintf(stderr, "%sacctl: %s%llu files seen, %llu inventoried, %llu skipped, %.0f files/s%s",
                 m_terminal ? "\r\033[K" : "", state, static_cast<unsigned long long>(seen),
                 static_cast<unsigned long long>(m_counters.Stored()),
                 static_cast<unsigned long long>(m_counters.Skipped()), rate, m_terminal ? "" : "\n");
    m_open = m_terminal;
  }

  // Ends a live line before anything else is written.
  void EndLine() {
    if (m_open) std::fputc('\n', stderr);
    m_open = false;
  }

 private:
  using Clock = std::chrono::steady_clock;
  const Counters& m_counters;
  bool m_terminal;
  double m_interval;
  Clock::time_point m_start;
  Clock::time_point m_last;
  bool m_open = false;
};

// Blocks the scan's signals in this thread and every thread it starts from
// now on (the task's worker among them), so that only sigtimedwait sees them.
class BlockedSignals {
 public:
  BlockedSignals() {
    sigemptyset(&set);
    for (int s : {SIGINT, SIGTERM, SIGUSR1, SIGUSR2, SIGTSTP, SIGCONT}) sigaddset(&set, s);
    ::pthread_sigmask(SIG_BLOCK, &set, &m_old);
  }
  ~BlockedSignals() {
    // Drop what came in late, so nothing fires after the scan.
    timespec zero{0, 0};
    while (::sigtimedwait(&set, nullptr, &zero) > 0) {
    }
    ::pthread_sigmask(SIG_SETMASK, &m_old, nullptr);
  }
  BlockedSignals(const BlockedSignals&) = delete;
  BlockedSignals& operator=(const BlockedSignals&) = delete;

  sigset_t set;

 private:
  sigset_t m_old;
};

std::string ResultText(zel::result_t r) {
  char text[zel::kMaxPrintedResult];
  const std::size_t n = zel::PrintResult(zel::FormatResult(r), text);
  return std::string(text, n);
}

}  // namespace

int RunScan(const GlobalOptions& options, const std::vector<std::string>& arguments) {
  const ScanArgs args = ParseScanArgs(arguments);
  if (args.help) {
    std::fputs(kScanUsage, stdout);
    return 0;
  }
  InventoryScanSettings settings = BuildSettings(args);
  CheckRoots(settings);
  const std::string db = StorePath(options);
  const bool terminal = ::isatty(STDERR_FILENO) == 1;
  const double interval = args.interval > 0 ? args.interval : (terminal ? 0.2 : 2.0);

  LoadedModule module(options.modulePath);
  int status = 0;
  {
    HostSession session(options.traceLevel, db, stdout);
    session.UseHashCacheStore(!args.rehash);
    session.hashCacheSaveInterval = std::chrono::seconds(1);
    // The scan's own view of the services: counted, and locked across processes.
    CountingFileFactory files(&session.files.files);
    CountingController engine(&session.engine->engine);
    FileTaskTryMutex typeLock(&session.engine->taskTypeLock, db);
    session.locator.Register<zel::IFileFactory>(&files, qurn::CLSID_FileFactories);
    session.locator.Register<app_ctrl::IEnterpriseApplicationController>(&engine);
    session.locator.Register<ITaskTryMutex>(&typeLock);
    TaskDescription description;
    description.taskId = kScanTaskId;
    description.taskName = zel::wstring_t(u"Inventory_Scan");
    description.taskType = zel::wstring_t(u"InventoryScan");
    description.sessionId = kScanSession;
    session.engine->tasks.Add(description, std::string());

    const ModuleRecords moduleRecords(module, &session.locator, *session.serialization.metaInfo);
    if (!moduleRecords.Ok()) return 1;
    auto storage = CreateModuleObject<tov::app_control::IInventoryStorage>(
        module, &session.locator, tov::app_control::kInventoryStorageClassId, "creating the inventory storage");
    if (!storage) return 1;
    CountingInventory inventory(storage.Get());
    session.locator.Register<tov::app_control::IInventoryStorage>(&inventory);

    auto task = CreateModuleObject<ITask>(module, &session.locator, tov::app_control::kInventoryScanTaskClassId,
                                          "creating the inventory scan task");
    if (!task) return 1;
    zel::RefPtr<tov::app_control::IInventoryScanTaskConstruct> construct;
    zel::result_t r = task->QueryInterface(tov::app_control::IInventoryScanTaskConstruct::iid,
                                           reinterpret_cast<void**>(construct.Ref()));
    if (ZEL_SUCCEEDED(r)) r = construct->Construct(&settings);
    if (ZEL_FAILED(r)) return Fail("handing the settings to the scan task", r);

    const Counters counters{files, engine, inventory};
    ProgressPrinter progress(counters, terminal, interval);
    bool interrupted = false;
    bool paused = false;
    {
      BlockedSignals signals;
      r = task->Start(kScanSession, &session.engine->taskStops);
      if (r == zel::result::UnspecifiedError) {
        std::fprintf(stderr, "acctl: another inventory scan is running on %s\n", db.c_str());
        return 1;
      }
      if (ZEL_FAILED(r)) return Fail("starting the inventory scan", r);

      while (session.engine->taskStops.Count() == 0) {
        timespec wait{0, 100 * 1000 * 1000};
        const int s = ::sigtimedwait(&signals.set, nullptr, &wait);
        if (s == SIGINT || s == SIGTERM) {
          interrupted = true;
          // The task's Stop holds its lock across the join, and its worker
          // takes that lock once before it clears the inventory: wait until
          // it is past that point (or over) before stopping.
          while (!inventory.cleared.load() && session.engine->taskStops.Count() == 0) {
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
          }
          if (paused) static_cast<void>(task->Resume());  // a suspended task is resumed before it stops
          break;
        }
        if ((s == SIGUSR1 || s == SIGTSTP) && !paused && session.engine->taskStops.Count() == 0) {
          if (ZEL_SUCCEEDED(task->Pause())) {
            paused = true;
            progress.Print("paused: ");
            progress.EndLine();
          }
        } else if ((s == SIGUSR2 || s == SIGCONT) && paused) {
          if (ZEL_SUCCEEDED(task->Resume())) {
            paused = false;
            std::fprintf(stderr, "acctl: resumed\n");
          }
        }
        if (!paused) progress.Tick("");
        session.SaveHashCache(false);  // on this thread, beside the walk
      }
      r = task->Stop();
    }
    progress.Print(interrupted ? "stopped: " : "done: ");
    progress.EndLine();
    if (ZEL_FAILED(r)) status = Fail("stopping the inventory scan", r);
    session.SaveHashCache();

    const auto notices = session.engine->taskStops.Received();
    const zel::result_t runResult = notices.empty() ? zel::result::Unexpected : notices.back().result;
    const double elapsed = progress.Elapsed();
    const std::uint64_t filesHashed = session.engine->engine.HashesComputed();
    const std::uint64_t hashesFromCache = session.engine->engine.Hashes().Stats().hits;
    if (args.json) {
      Json::Value summary;
      summary["result"] = ResultText(runResult);
      summary["interrupted"] = interrupted;
      summary["filesSeen"] = Json::UInt64(counters.Seen());
      summary["filesGivenToEngine"] = Json::UInt64(engine.described.load());
      summary["inventoried"] = Json::UInt64(counters.Stored());
      summary["skipped"] = Json::UInt64(counters.Skipped());
      summary["hashesFromCache"] = Json::UInt64(hashesFromCache);
      summary["filesHashed"] = Json::UInt64(filesHashed);
      summary["seconds"] = elapsed;
      summary["store"] = db;
      Json::StreamWriterBuilder writer;
      writer["indentation"] = "";
      std::printf("%s\n", Json::writeString(writer, summary).c_str());
    } else {
      std::printf("scanned %llu files in %.2f s: %llu inventoried, %llu skipped, %llu hashed, %llu from the cache%s; store %s\n",
                  static_cast<unsigned long long>(counters.Seen()), elapsed,
                  static_cast<unsigned long long>(counters.Stored()),
                  static_cast<unsigned long long>(counters.Skipped()), static_cast<unsigned long long>(filesHashed),
                  static_cast<unsigned long long>(hashesFromCache),
                  interrupted ? " (interrupted: the inventory is left empty)" : "", db.c_str());
    }

    if (inventory.flushed.load() && ZEL_FAILED(inventory.flushResult.load())) {
      status = Fail("storing the inventory", inventory.flushResult.load());
    } else if (!inventory.flushed.load() && status == 0) {
      // The run ended before its flush; the trace said why.
      status = Fail("the inventory scan", ZEL_FAILED(runResult) ? runResult : zel::result::Unexpected);
    } else if (ZEL_FAILED(runResult) && status == 0) {
      status = Fail("the inventory scan", runResult);
    }

    task.Reset();
    construct.Reset();
    session.locator.Remove(tov::app_control::IInventoryStorage::iid);
    storage.Reset();
    session.locator.Remove(ITaskTryMutex::iid);
    session.locator.Remove(app_ctrl::IEnterpriseApplicationController::iid);
    session.locator.Remove(zel::IFileFactory::iid, qurn::CLSID_FileFactories);
  }
  if (module.CanUnload() != 0) {
    std::fprintf(stderr, "acctl: module objects are still alive after the scan\n");
    status = 1;
  }
  return status;
}

}  // namespace host::cli
