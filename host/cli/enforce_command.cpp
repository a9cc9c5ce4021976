// acctl enforce: application control on this machine's live program
// starts. The task is made and started as `acctl run` does; the reference
// engine then holds every program start in the marked directories and
// mounts (fanotify) until it has decided, and answers the kernel with the
// verdict. Runs until SIGTERM or SIGINT; SIGHUP reloads the settings and
// categories files, SIGUSR1 prints the counters.
#include <signal.h>
#include <sys/fanotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <fcntl.h>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "app_control/interfaces/iapp_control_task_settings.h"
#include "host/cli/app_control_run.h"
#include "host/cli/category_document.h"
#include "host/cli/cli.h"
#include "host/cli/internal/arg_reader.h"
#include "host/cli/service_state.h"
#include "host/cli/settings_json.h"
#include "host/engine/fanotify_listener.h"

namespace host::cli {
namespace {

struct EnforceArgs {
  std::string settingsPath;
  std::string categoriesPath;
  std::string eventsPath;
  engine::FanotifyOptions listener;
  bool memfdNoExec = false;
  bool json = false;
  bool help = false;
};

constexpr const char* kUsage =
    "usage: acctl enforce --settings SETTINGS.json [--categories CATEGORIES.json]\n"
    "                     (--watch DIR | --mount PATH)... [--on-timeout allow|deny]\n"
    "                     [--decision-timeout MS] [--events FILE] [--memfd-noexec] [--json]\n"
    "  Holds every program start in DIR (the programs directly in it) or on the\n"
    "  mount holding PATH until application control has decided it; a blocked\n"
    "  program fails to start with EPERM. Needs root. Runs until SIGTERM or SIGINT.\n"
    "  SIGHUP reloads SETTINGS and CATEGORIES; SIGUSR1 prints the counters.\n"
    "  --on-timeout        the answer for a start not decided in time (allow)\n"
    "  --decision-timeout  how long a start may wait for its decision (1000 ms)\n"
    "  --decision-delay MS testing aid: every decision waits MS first\n"
    "  --memfd-noexec      no memfd may be executed while this runs (vm.memfd_noexec\n"
    "                      set to 2, the old value put back at exit)\n"
    "  --json              counters as one JSON line on stdout\n";

EnforceArgs ParseArgs(const std::vector<std::string>& args) {
  EnforceArgs out;
  ArgReader r("enforce", args);
  constexpr std::uint64_t kMaxMs = 3'600'000;
  while (r.Next()) {
    if (r.Is("--settings")) {
      out.settingsPath = r.Value();
    } else if (r.Is("--categories")) {
      out.categoriesPath = r.Value();
    } else if (r.Is("--watch")) {
      out.listener.watchDirs.push_back(r.Value());
    } else if (r.Is("--mount")) {
      out.listener.mounts.push_back(r.Value());
    } else if (r.Is("--on-timeout")) {
      const std::string& policy = r.Value();
      if (policy != "allow" && policy != "deny") r.Fail("--on-timeout is allow or deny, not '" + policy + "'");
      out.listener.denyOnTimeout = policy == "deny";
    } else if (r.Is("--decision-timeout")) {
      out.listener.decisionTimeout = std::chrono::milliseconds(r.Number(kMaxMs));
      if (out.listener.decisionTimeout.count() == 0) r.Fail("--decision-timeout must be above 0");
    } else if (r.Is("--decision-delay")) {
      out.listener.decisionDelay = std::chrono::milliseconds(r.Number(kMaxMs));
    } else if (r.Is("--events")) {
      out.eventsPath = r.Value();
    } else if (r.Is("--memfd-noexec")) {
      out.memfdNoExec = true;
    } else if (r.Is("--json")) {
      out.json = true;
    } else if (r.IsHelp()) {
      out.help = true;
      return out;
    } else {
      r.Fail("unexpected argument " + r.Operand());
    }
  }
  if (out.settingsPath.empty()) r.Fail("--settings SETTINGS.json is required");
  if (out.listener.watchDirs.empty() && out.listener.mounts.empty())
    r.Fail("nothing to enforce on: give --watch DIR or --mount PATH");
  return out;
}

// vm.memfd_noexec (Linux 6.3 and later): at 2 no memfd can be executed, so
// a program can't be started from memory, where no mark sees it. Below 2
// one can (at 1 only when asked for with MFD_EXEC).
constexpr const char* kMemfdNoExec = "/proc/sys/vm/memfd_noexec";

// The value; -1 when this kernel has none.
int ReadMemfdNoExec() {
  const int fd = ::open(kMemfdNoExec, O_RDONLY | O_CLOEXEC);
  if (fd < 0) return -1;
  char text[16] = {};
  const ssize_t n = ::read(fd, text, sizeof text - 1);
  ::close(fd);
  return n > 0 && text[0] >= '0' && text[0] <= '9' ? std::atoi(text) : -1;
}

bool WriteMemfdNoExec(int value, std::string* error) {
  const int fd = ::open(kMemfdNoExec, O_WRONLY | O_CLOEXEC);
  const std::string text = std::to_string(value);
  if (fd < 0 || ::write(fd, text.data(), text.size()) != static_cast<ssize_t>(text.size())) {
    *error = std::string(kMemfdNoExec) + ": " + std::strerror(errno);
    if (fd >= 0) ::close(fd);
    return false;
  }
  ::close(fd);
  return true;
}

// Sets vm.memfd_noexec to 2 for its lifetime, when asked to, and puts the
// old value back.
class MemfdSwitch {
 public:
  MemfdSwitch() : m_before(ReadMemfdNoExec()) {}
  MemfdSwitch(const MemfdSwitch&) = delete;
  MemfdSwitch& operator=(const MemfdSwitch&) = delete;
  ~MemfdSwitch() {
    std::string error;
    if (m_set && !WriteMemfdNoExec(m_before, &error))
      std::fprintf(stderr, "acctl: enforce: putting vm.memfd_noexec back to %d failed: %s\n", m_before, error.c_str());
  }

  bool Refuse(std::string* error) {
    if (m_before < 0) {
      *error = "this kernel has no vm.memfd_noexec (Linux 6.3): a memfd can't be kept from running";
      return false;
    }
    if (m_before >= 2) return true;
    if (!WriteMemfdNoExec(2, error)) return false;
    m_set = true;
    return true;
  }
  bool ExecAllowed() const { return Now() < 2; }
  // Said once at start.
  void Describe() const {
    const int now = Now();
    if (now < 0) {
      std::fprintf(stderr, "acctl: this kernel lets a memfd be executed, unseen by the marks (no vm.memfd_noexec)\n");
    } else if (now < 2) {
      std::fprintf(stderr,
                   "acctl: this kernel lets a memfd be executed, unseen by the marks (vm.memfd_noexec %d; "
                   "--memfd-noexec refuses it)\n",
                   now);
    } else {
      std::fprintf(stderr, "acctl: no memfd can be executed here (vm.memfd_noexec 2%s)\n",
                   m_set ? ", set for this run" : "");
    }
  }

 private:
  int Now() const { return m_set ? 2 : m_before; }
  const int m_before;
  bool m_set = false;
};

class Enforcer {
 public:
  Enforcer(const EnforceArgs& args, AppControlRun& run)
      : m_args(args),
        m_run(run),
        m_listener(run.session.engine->engine, args.listener, &run.session.tracer) {}

  int Run(const sigset_t& signals) {
    std::string message;
    switch (m_listener.Open(&message)) {
      case engine::FanotifyListener::OpenError::None: break;
      case engine::FanotifyListener::OpenError::BadPath:
        std::fprintf(stderr, "acctl: enforce: %s\n", message.c_str());
        return 2;
      default:
        std::fprintf(stderr, "acctl: enforce: %s\n", message.c_str());
        return 1;
    }
    if (m_args.memfdNoExec) {
      if (!m_memfd.Refuse(&message)) {
        std::fprintf(stderr, "acctl: enforce: %s\n", message.c_str());
        return 1;
      }
    }
    m_memfd.Describe();
    m_listener.Start();
    std::fprintf(stderr, "acctl: enforcing on %zu marks\n", m_listener.Marks());
    std::fflush(stderr);
    // Every mark is placed: the service manager may start what depends on it.
    EnforceServiceState state;
    state.Publish(m_listener.Marks(), engine::FormatCountersJson(m_listener.Counters()));
    NotifyServiceManager("READY=1\nSTATUS=enforcing on " + std::to_string(m_listener.Marks()) + " marks");

    int status = 0;
    for (;;) {
      const timespec tick{0, 200'000'000};
      siginfo_t info{};
      const int sig = ::sigtimedwait(&signals, &info, &tick);
      if (sig == SIGTERM || sig == SIGINT) {
        NotifyServiceManager("STOPPING=1");
        break;
      }
      if (sig == SIGHUP) Reload();
      if (sig == SIGUSR1) {
        PrintCounters();
        state.Publish(m_listener.Marks(), engine::FormatCountersJson(m_listener.Counters()));
      }
      m_run.session.SaveHashCache(false);  // on this thread, never on a decision's
      if (m_listener.Failed()) {
        std::fprintf(stderr, "acctl: enforce: %s; every held start is answered and enforcement ends\n",
                     m_listener.FailureText().c_str());
        status = 1;
        break;
      }
    }
    m_listener.Stop();
    PrintCounters();
    return status;
  }

 private:
  void PrintCounters() {
    engine::EnforceCountersSnapshot counters = m_listener.Counters();
    counters.memfdExec = m_memfd.ExecAllowed() ? 1 : 0;
    if (m_args.json) {
      std::printf("{\"counters\":%s}\n", engine::FormatCountersJson(counters).c_str());
      std::fflush(stdout);
    } else {
      std::fprintf(stderr, "acctl: %s\n", engine::FormatCountersText(counters).c_str());
    }
  }

  // Everything is read and checked first; the store and the task change
  // only together, while no decision is under way, and a failure puts the
  // previous categories back: a start sees the old rules or the new ones.
  // One line, whatever the parser's message holds.
  static void Refused(std::string why) {
    for (char& c : why)
      if (c == '\n' || c == '\r') c = ' ';
    std::fprintf(stderr, "acctl: reload refused, the previous settings stay: %s\n", why.c_str());
  }

  void Reload() {
    // Everything slow (reading and parsing both files, writing the new
    // categories to the store) happens before decisions are held; held,
    // only the switch: the categories decisions read, and the task's rules.
    HostSession& s = m_run.session;
    tov::settings::AppControlSettings settings;
    std::optional<tov::tools::CategoryList> categories;
    try {
      settings = SettingsFromJson(ReadFile(m_args.settingsPath), m_args.settingsPath);
      if (!m_args.categoriesPath.empty())
        categories = ParseCategories(&s.locator, ReadFile(m_args.categoriesPath), m_args.categoriesPath);
    } catch (const std::exception& e) {
      Refused(e.what());
      return;
    }
    zel::RefPtr<tov::app_control::IAppControlTaskSettings> task;
    zel::result_t r = m_run.task->QueryInterface(tov::app_control::IAppControlTaskSettings::iid,
                                                 reinterpret_cast<void**>(task.Ref()));
    if (ZEL_FAILED(r)) {
      Fail("reload: reaching the task's settings", r);
      return;
    }
    tov::tools::CategoryList previous;
    std::shared_ptr<const tov::tools::CategoryList> decided;  // what decisions read until the switch
    if (categories) {
      std::uint32_t counter = 0;
      r = s.categories.GetCategories(counter, previous);
      if (ZEL_SUCCEEDED(r)) r = s.categories.StageUserCategories(*categories, &decided);
      if (ZEL_FAILED(r)) {
        Fail("storing the categories", r);
        Refused(m_args.categoriesPath + ": the categories store refused the document");
        return;
      }
    }
    std::string error;
    m_listener.WithDecisionsHeld([&] {
      if (categories) s.categories.PublishStaged();
      r = task->SetSettings(&settings);
      if (ZEL_SUCCEEDED(r)) return;
      if (categories) s.categories.RestoreSnapshot(decided);
      char text[zel::kMaxPrintedResult];
      const std::size_t n = zel::PrintResult(zel::FormatResult(r), text);
      error = m_args.settingsPath + ": the task refused the settings: " + std::string(text, n);
    });
    if (!error.empty() && categories) {
      // Decisions never saw the new categories; the store is put back too.
      r = s.categories.PutCategories({}, previous, {}, tov::types::CategoriesAction::ReplaceUser);
      if (ZEL_FAILED(r)) error += "; putting the previous categories back failed too";
    }
    if (!error.empty()) {
      Refused(error);
      return;
    }
    std::fprintf(stderr, "acctl: reloaded %s%s%s\n", m_args.settingsPath.c_str(),
                 m_args.categoriesPath.empty() ? "" : " and ", m_args.categoriesPath.c_str());
    std::fflush(stderr);
  }

  const EnforceArgs& m_args;
  AppControlRun& m_run;
  MemfdSwitch m_memfd;  // before the listener: put back after it has stopped
  engine::FanotifyListener m_listener;
};

}  // namespace

int RunEnforce(const GlobalOptions& globalOptions, const std::vector<std::string>& argv) {
  const EnforceArgs args = ParseArgs(argv);
  if (args.help) {
    std::fputs(kUsage, stdout);
    return 0;
  }
  GlobalOptions options = globalOptions;
  if (!args.eventsPath.empty()) options.eventsPath = args.eventsPath;

  // Every input is read and checked before anything is loaded.
  // A settings document that does not load is a usage error (exit 2), on
  // which a service manager does not restart.
  const std::string settingsJson = ReadFile(args.settingsPath);
  tov::settings::AppControlSettings settings;
  try {
    settings = SettingsFromJson(settingsJson, args.settingsPath);
  } catch (const UsageError&) {
    throw;
  } catch (const UserError& e) {
    throw UsageError(e.what());
  }
  const std::string categoriesJson = args.categoriesPath.empty() ? std::string() : ReadFile(args.categoriesPath);
  for (const std::vector<std::string>* paths : {&args.listener.watchDirs, &args.listener.mounts}) {
    for (const std::string& path : *paths) {
      struct stat st {};
      if (::stat(path.c_str(), &st) != 0) {
        std::fprintf(stderr, "acctl: enforce: %s: %s\n", path.c_str(), std::strerror(errno));
        return 2;
      }
    }
  }
  const int probe = ::fanotify_init(FAN_CLASS_CONTENT | FAN_CLOEXEC, O_RDONLY);
  if (probe < 0) {
    const int e = errno;
    if (e == EPERM)
      std::fprintf(stderr, "acctl: enforce needs root: fanotify permission events need CAP_SYS_ADMIN\n");
    else
      std::fprintf(stderr, "acctl: enforce: fanotify is not available here: %s\n", std::strerror(e));
    return 1;
  }
  ::close(probe);

  // The signals are taken by the main thread alone: every thread made from
  // here on inherits the mask.
  sigset_t signals;
  sigemptyset(&signals);
  for (int sig : {SIGTERM, SIGINT, SIGHUP, SIGUSR1}) sigaddset(&signals, sig);
  ::pthread_sigmask(SIG_BLOCK, &signals, nullptr);

  return RunAppControlTask(options, settings, categoriesJson, args.categoriesPath, [&](AppControlRun& run) {
    Enforcer enforcer(args, run);
    return enforcer.Run(signals);
  });
}

}  // namespace host::cli
