#include "host/engine/fanotify_listener.h"

#include <fcntl.h>
#include <glob.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/fanotify.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <algorithm>
#include <string_view>
#include <mutex>
#include <utility>

#include "host/services/pidfd.h"
#include "zel/trace/trace_stream.h"

namespace host::engine {

namespace {

constexpr std::string_view kDeletedMark = " (deleted)";
// How long the publisher lingers for more decisions once it has one: a
// steady stream of starts then wakes it once per batch, not per start.
constexpr std::chrono::milliseconds kPublishLinger{10};

std::string ErrnoText(int error) { return std::strerror(error); }

// Takes the kernel's " (deleted)" mark off a link read for `fd`.
std::string DescriptorPath(const char* buffer, ssize_t n, int fd, bool* deleted) {
  *deleted = false;
  if (n <= 0) return {};
  std::string path(buffer, static_cast<std::size_t>(n));
  if (path.size() > kDeletedMark.size() && path.ends_with(kDeletedMark)) {
    // The mark alone doesn't prove it: a name may end like that. Only a file
    // with no links left is really gone.
    struct stat st {};
    if (::fstat(fd, &st) == 0 && st.st_nlink == 0) {
      path.resize(path.size() - kDeletedMark.size());
      *deleted = true;
    }
  }
  return path;
}

}  // namespace

std::vector<FileId> FindDynamicLoaders() {
  std::vector<FileId> found;
  for (const char* pattern : {"/lib64/ld-linux*.so*", "/lib/ld-linux*.so*", "/lib/*/ld-linux*.so*",
                              "/usr/lib64/ld-linux*.so*", "/usr/lib/*/ld-linux*.so*", "/lib/ld-musl-*.so*",
                              "/usr/lib/ld-musl-*.so*", "/lib/ld.so", "/usr/lib/ld.so"}) {
    glob_t matches{};
    if (::glob(pattern, 0, nullptr, &matches) == 0) {
      for (std::size_t i = 0; i < matches.gl_pathc; ++i) {
        struct stat st {};
        if (::stat(matches.gl_pathv[i], &st) != 0 || !S_ISREG(st.st_mode)) continue;
        const FileId id{st.st_dev, st.st_ino};
        if (std::find(found.begin(), found.end(), id) == found.end()) found.push_back(id);
      }
    }
    ::globfree(&matches);
  }
  return found;
}

std::string LoaderProgram(std::string_view commandLine) {
  // The loader's options that take a value (glibc's ld.so).
  static constexpr std::string_view kWithValue[] = {"--library-path", "--inhibit-rpath", "--audit",
                                                    "--preload",      "--argv0",         "--glibc-hwcaps-prepend",
                                                    "--glibc-hwcaps-mask"};
  std::vector<std::string_view> args;
  for (std::size_t at = 0; at < commandLine.size();) {
    const std::size_t end = std::min(commandLine.find('\0', at), commandLine.size());
    args.push_back(commandLine.substr(at, end - at));
    at = end + 1;
  }
  for (std::size_t i = 1; i < args.size(); ++i) {
    const std::string_view arg = args[i];
    if (!arg.starts_with("--")) return std::string(arg);
    if (std::find(std::begin(kWithValue), std::end(kWithValue), arg) != std::end(kWithValue)) ++i;
  }
  return {};
}

std::optional<ProcessIdentity> ReadProcessIdentity(const std::string& procRoot, std::uint32_t pid) {
  // Read with plain calls, and no further than needed: this runs for every
  // program start, and Uid and PPid come in the first read.
  char path[256];
  const int pathLength = std::snprintf(path, sizeof path, "%s/%u/status", procRoot.c_str(), pid);
  if (pathLength <= 0 || static_cast<std::size_t>(pathLength) >= sizeof path) return std::nullopt;
  const int fd = ::open(path, O_RDONLY | O_CLOEXEC);
  if (fd < 0) return std::nullopt;
  char buffer[4096];
  std::size_t length = 0;
  ProcessIdentity identity;
  bool haveUid = false, havePpid = false;
  const auto field = [&](std::string_view text, std::string_view name, std::uint32_t* out) {
    for (std::size_t at = 0; at < text.size();) {
      const std::size_t newline = text.find('\n', at);
      if (newline == std::string_view::npos) return false;  // a line not read whole yet
      if (text.substr(at, newline - at).starts_with(name))
        return std::sscanf(text.data() + at + name.size(), "%u", out) == 1;
      at = newline + 1;
    }
    return false;
  };
  for (;;) {
    const ssize_t n = ::read(fd, buffer + length, sizeof buffer - 1 - length);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    length += static_cast<std::size_t>(n);
    buffer[length] = '\0';
    const std::string_view text(buffer, length);
    haveUid = haveUid || field(text, "Uid:", &identity.uid);
    havePpid = havePpid || field(text, "PPid:", &identity.ppid);
    if ((haveUid && havePpid) || length == sizeof buffer - 1) break;  // both lie well within the first page
  }
  ::close(fd);
  if (!haveUid || !havePpid) {
    // The last line may lack its line break.
    buffer[length] = '\0';
    std::string text(buffer, length);
    text.push_back('\n');
    haveUid = haveUid || field(text, "Uid:", &identity.uid);
    havePpid = havePpid || field(text, "PPid:", &identity.ppid);
  }
  if (!haveUid || !havePpid) return std::nullopt;
  return identity;
}

std::optional<ProcessIdentity> QueryProcessIdentity(std::uint32_t pid, bool* unsupported, host::PidfdHandle* keep) {
  const std::optional<PidfdFacts> facts = QueryPidfd(pid, unsupported, keep);
  if (!facts) return std::nullopt;
  return ProcessIdentity{facts->uid, facts->ppid, facts->serial};
}

std::string PathOfDescriptor(const std::string& procRoot, int fd, bool* deleted) {
  const std::string link = procRoot + "/self/fd/" + std::to_string(fd);
  char buffer[4096];
  const ssize_t n = ::readlink(link.c_str(), buffer, sizeof buffer);
  return DescriptorPath(buffer, static_cast<std::size_t>(n) < sizeof buffer ? n : -1, fd, deleted);
}

StartProbe::StartProbe(std::string procRoot) : m_procRoot(std::move(procRoot)) {
  m_fdDir = ::open((m_procRoot + "/self/fd").c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (m_procRoot == "/proc") {
    bool unsupported = false;
    m_pidfd = QueryProcessIdentity(static_cast<std::uint32_t>(::getpid()), &unsupported).has_value();
  }
}

StartProbe::~StartProbe() {
  if (m_fdDir >= 0) ::close(m_fdDir);
}

std::optional<ProcessIdentity> StartProbe::Identity(std::uint32_t pid, host::PidfdHandle* keep) const {
  if (m_pidfd) {
    bool unsupported = false;
    std::optional<ProcessIdentity> identity = QueryProcessIdentity(pid, &unsupported, keep);
    if (identity || !unsupported) return identity;
  }
  return ReadProcessIdentity(m_procRoot, pid);
}

std::string StartProbe::PathOf(int fd, bool* deleted) const {
  if (m_fdDir < 0) return PathOfDescriptor(m_procRoot, fd, deleted);
  char name[16];
  std::snprintf(name, sizeof name, "%d", fd);
  char buffer[4096];
  const ssize_t n = ::readlinkat(m_fdDir, name, buffer, sizeof buffer);
  return DescriptorPath(buffer, static_cast<std::size_t>(n) < sizeof buffer ? n : -1, fd, deleted);
}

// The user of a start whose process was gone before it could be asked.
constexpr std::uint32_t kUnknownUid = 0xFFFFFFFFu;

// One start held by the kernel: the event's descriptor, which the job owns
// until both its decision and its answer are done with it; then it is
// closed at once, not when the pool forgets the job.
class FanotifyListener::ExecJob final : public DeadlineJob {
 public:
  ExecJob(FanotifyListener& listener, int fd, std::uint32_t pid) : m_listener(listener), m_fd(fd), m_pid(pid) {}
  ~ExecJob() override { CloseDescriptor(); }

  void Decide() override {
    struct Done {
      ExecJob& job;
      ~Done() { job.Release(); }
    } done{*this};
    FanotifyListener& l = m_listener;
    if (!l.HoldDecision()) {
      m_abandoned = true;  // stopping: answered like those the pool answers at Stop
      return;
    }
    std::shared_lock gate(l.m_gate);
    const std::shared_ptr<const EacSettings> settings = l.m_engine.ActiveSettings();
    if (!settings) return;  // nothing is enforced while the task is stopped or paused: allow
    bool deleted = false;
    ProgramStart start;
    start.path = l.m_probe.PathOf(m_fd, &deleted);
    start.pid = m_pid;
    // The pidfd's serial, which only the report's unique id needs, is read
    // on the publishing thread: the start waits for nothing it doesn't need.
    const std::optional<ProcessIdentity> who = l.m_probe.Identity(m_pid, &m_pidfd);
    if (who) {
      start.uid = who->uid;
      start.ppid = who->ppid;
      start.pidfdSerial = who->pidfdSerial;
      start.uniqueIdLater = m_pidfd.Get() >= 0;
      m_ppid = who->ppid;
    } else {
      // Decided and reported all the same, with what is known: rules for
      // everyone still apply, rules for a named user can't.
      ZEL_TRACE(l.m_tracer, zel::trace_level::Notice)
          << "enforce: process " << m_pid << " is gone before its start of " << start.path
          << " was decided; decided without its user";
      start.uid = kUnknownUid;
    }
    ProgramDecision decision = l.m_engine.DecideOpenFile(m_fd, start, *settings);
    if (deleted) {
      ZEL_TRACE(l.m_tracer, zel::trace_level::Notice)
          << "enforce: " << start.path << " was deleted before its start by process " << m_pid
          << " was decided; decided on the file that was started";
    }
    if (decision.facts.sha256.empty()) {
      ZEL_TRACE(l.m_tracer, zel::trace_level::Notice)
          << "enforce: " << start.path << " can't be read; its start by process " << m_pid
          << " was decided on its path, name and drive";
    }
    m_decision = std::move(decision);
  }

  void Answer(bool timedOut) override {
    struct Done {
      ExecJob& job;
      ~Done() { job.Release(); }
    } done{*this};
    FanotifyListener& l = m_listener;
    EnforceCounters& c = l.m_counters;
    if (timedOut || m_abandoned.load()) {
      c.timedOut.fetch_add(1);
      if (!l.m_options.denyOnTimeout) l.NoteExecAllowed(m_pid);
      l.AnswerByPolicy(m_fd);
      return;
    }
    if (!m_decision) {
      // Nothing is enforced (the task is stopped or paused): allowed, undecided.
      c.undecided.fetch_add(1);
      c.allowed.fetch_add(1);
      l.NoteExecAllowed(m_pid);
      l.Respond(m_fd, true);
      return;
    }
    const std::int32_t verdict = m_decision->decision.verdict;
    const bool allow = verdict != app_ctrl::verdict::Blocked;
    c.decided.fetch_add(1);
    if ((verdict & app_ctrl::verdict::TestModeFlag) != 0) c.testMode.fetch_add(1);
    (allow ? c.allowed : c.blocked).fetch_add(1);
    // Queued before the answer, so that a start that follows this one in
    // time is published after it; but the publisher is woken only once the
    // start is answered: it must not take the processor from the program.
    bool wakePublisher = false;
    l.m_published.PushWithoutWake(PendingReport{std::move(*m_decision), m_pid, m_ppid, std::move(m_pidfd)},
                                  &wakePublisher);
    if (allow) l.NoteExecAllowed(m_pid);
    l.Respond(m_fd, allow);
    if (wakePublisher) l.m_published.Wake();
  }

 private:
  // Decide and Answer each let go of the descriptor once; the second closes
  // it. (A job answered before any decision keeps it to its destructor.)
  void Release() {
    if (m_holders.fetch_sub(1) == 1) CloseDescriptor();
  }
  void CloseDescriptor() {
    if (!m_closed.exchange(true)) ::close(m_fd);
  }

  FanotifyListener& m_listener;
  const int m_fd;
  const std::uint32_t m_pid;
  std::atomic<int> m_holders{2};
  std::atomic<bool> m_closed{false};
  // Set by Decide, read by an Answer that may come from the watchdog meanwhile.
  std::atomic<bool> m_abandoned{false};
  std::optional<ProgramDecision> m_decision;
  host::PidfdHandle m_pidfd;  // set by Decide with m_decision
  std::uint32_t m_ppid = 0;
};

FanotifyListener::FanotifyListener(Engine& engine, FanotifyOptions options, zel::ITracer* tracer)
    : m_engine(engine),
      m_options(std::move(options)),
      m_probe(m_options.procRoot),
      m_tracer(tracer),
      m_self(::getpid()),
      m_loaders(m_options.loaderStarts ? FindDynamicLoaders() : std::vector<FileId>{}),
      m_published(m_options.publishQueue) {}

FanotifyListener::~FanotifyListener() { Stop(); }

FanotifyListener::OpenError FanotifyListener::Open(std::string* message) {
  const auto fail = [&](OpenError kind, std::string text) {
    if (m_fan >= 0) ::close(std::exchange(m_fan, -1));
    if (m_wake >= 0) ::close(std::exchange(m_wake, -1));
    m_marks = 0;
    *message = std::move(text);
    return kind;
  };
  m_fan = ::fanotify_init(FAN_CLASS_CONTENT | FAN_CLOEXEC | FAN_NONBLOCK, O_RDONLY | O_LARGEFILE);
  if (m_fan < 0) {
    const int e = errno;
    if (e == EPERM) return fail(OpenError::NotPermitted, "fanotify needs root (CAP_SYS_ADMIN): " + ErrnoText(e));
    if (e == ENOSYS || e == EINVAL)
      return fail(OpenError::NotSupported, "this kernel offers no fanotify permission events: " + ErrnoText(e));
    return fail(OpenError::Failed, "fanotify_init failed: " + ErrnoText(e));
  }
  m_wake = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  if (m_wake < 0) return fail(OpenError::Failed, "eventfd failed: " + ErrnoText(errno));

  const auto mark = [&](const std::string& path, unsigned flags, std::uint64_t mask) -> std::optional<OpenError> {
    if (::fanotify_mark(m_fan, FAN_MARK_ADD | flags, mask, AT_FDCWD, path.c_str()) == 0) {
      ++m_marks;
      return std::nullopt;
    }
    const int e = errno;
    if (e == ENOENT || e == ENOTDIR || e == EACCES)
      return fail(OpenError::BadPath, path + ": " + ErrnoText(e));
    if (e == EINVAL)
      return fail(OpenError::NotSupported, path + ": this kernel can't hold program starts (FAN_OPEN_EXEC_PERM): " +
                                               ErrnoText(e));
    if (e == EPERM) return fail(OpenError::NotPermitted, path + ": " + ErrnoText(e));
    return fail(OpenError::Failed, path + ": fanotify_mark failed: " + ErrnoText(e));
  };
  // Plain opens only matter while there is a loader to catch.
  const std::uint64_t opens = m_loaders.empty() ? 0 : FAN_OPEN_PERM;
  for (const std::string& dir : m_options.watchDirs)
    if (auto e = mark(dir, FAN_MARK_ONLYDIR, FAN_OPEN_EXEC_PERM | opens | FAN_EVENT_ON_CHILD)) return *e;
  for (const std::string& path : m_options.mounts)
    if (auto e = mark(path, FAN_MARK_MOUNT, FAN_OPEN_EXEC_PERM | opens)) return *e;
  message->clear();
  return OpenError::None;
}

void FanotifyListener::Start() {
  if (m_started || m_fan < 0) return;
  const std::size_t deciders = std::max<std::size_t>(m_options.workers, 1);
  // One epoll set for each deciding thread and one, made last, for the
  // overflow reader. The group is in each exclusively: an event wakes one
  // set that has a thread waiting, the first one made that has; so the
  // overflow reader is woken only when every deciding thread is busy.
  for (std::size_t i = 0; i <= deciders; ++i) {
    const int epoll = ::epoll_create1(EPOLL_CLOEXEC);
    if (epoll < 0) {
      Fail("epoll_create1 failed: " + ErrnoText(errno));
      return;
    }
    m_epolls.push_back(epoll);
    epoll_event wake{};
    wake.events = EPOLLIN;
    wake.data.fd = m_wake;
    epoll_event fan{};
    fan.events = EPOLLIN | EPOLLEXCLUSIVE;
    fan.data.fd = m_fan;
    if (::epoll_ctl(epoll, EPOLL_CTL_ADD, m_wake, &wake) != 0) {
      Fail("epoll_ctl failed: " + ErrnoText(errno));
      return;
    }
    if (::epoll_ctl(epoll, EPOLL_CTL_ADD, m_fan, &fan) != 0) {
      // A kernel without exclusive wake-ups: every thread wakes for each
      // event and one of them gets it; slower, just as correct.
      fan.events = EPOLLIN;
      if (::epoll_ctl(epoll, EPOLL_CTL_ADD, m_fan, &fan) != 0) {
        Fail("epoll_ctl failed: " + ErrnoText(errno));
        return;
      }
    }
  }
  m_started = true;
  m_pool = std::make_unique<DeadlinePool>(m_options.workers, m_options.decisionTimeout);
  m_publisher = std::thread([this] { PublishLoop(); });
  for (std::size_t i = 0; i < deciders; ++i) m_deciders.emplace_back([this, i] { DecideLoop(m_epolls[i]); });
  m_reader = std::thread([this] { ReadLoop(m_epolls.back()); });
}

void FanotifyListener::Respond(int eventFd, bool allow) {
  fanotify_response response{};
  response.fd = eventFd;
  response.response = allow ? FAN_ALLOW : FAN_DENY;
  // ENOENT: the kernel has no such event any more (its group is going);
  // nothing else can be done for it.
  while (::write(m_fan, &response, sizeof response) < 0 && errno == EINTR) {
  }
}

void FanotifyListener::AnswerByPolicy(int eventFd) {
  const bool allow = !m_options.denyOnTimeout;
  (allow ? m_counters.allowed : m_counters.blocked).fetch_add(1);
  Respond(eventFd, allow);
}

bool FanotifyListener::HoldDecision() {
  if (m_options.decisionDelay.count() <= 0) return true;
  std::unique_lock lock(m_delayMutex);
  return !m_delayCut.wait_for(lock, m_options.decisionDelay, [this] { return m_stopping; });
}

void FanotifyListener::Fail(std::string text) {
  {
    std::lock_guard lock(m_failureMutex);
    m_failure = std::move(text);
  }
  m_failed.store(true);
}

std::string FanotifyListener::FailureText() const {
  std::lock_guard lock(m_failureMutex);
  return m_failure;
}

bool FanotifyListener::WaitForEvent(int epoll) {
  epoll_event ready[2];
  for (;;) {
    const int n = ::epoll_wait(epoll, ready, 2, -1);
    if (n < 0) {
      if (errno == EINTR) continue;
      Fail("epoll_wait failed: " + ErrnoText(errno));
      return false;
    }
    bool fan = false;
    for (int i = 0; i < n; ++i) {
      if (ready[i].data.fd == m_wake) return false;
      if ((ready[i].events & (EPOLLERR | EPOLLHUP)) != 0) {
        Fail("the fanotify descriptor failed");
        return false;
      }
      fan = fan || (ready[i].events & EPOLLIN) != 0;
    }
    if (fan) return true;
  }
}

void FanotifyListener::DecideLoop(int epoll) {
  // One event per read: a second one read here would wait for this
  // thread's decision, while another thread could take it at once.
  while (WaitForEvent(epoll) && ReadEvents(FAN_EVENT_METADATA_LEN, true)) {
  }
}

void FanotifyListener::ReadLoop(int epoll) {
  while (WaitForEvent(epoll) && ReadEvents(8192, false)) {
  }
}

bool FanotifyListener::ReadEvents(std::size_t size, bool here) {
  alignas(fanotify_event_metadata) char buffer[8192];
  size = std::min(size, sizeof buffer);
  for (;;) {
    const ssize_t length = ::read(m_fan, buffer, size);
    if (length < 0) {
      if (errno == EINTR) continue;
      if (errno == EAGAIN) return true;
      Fail("reading fanotify events failed: " + ErrnoText(errno));
      return false;
    }
    if (length == 0) return true;
    auto* event = reinterpret_cast<fanotify_event_metadata*>(buffer);
    ssize_t left = length;
    for (; FAN_EVENT_OK(event, left); event = FAN_EVENT_NEXT(event, left)) {
      if (event->vers != FANOTIFY_METADATA_VERSION) {
        // Unreadable from here on; what is not answered is allowed by the
        // kernel when the group closes.
        Fail("fanotify event version " + std::to_string(event->vers) + " is not the one this program reads");
        if (event->fd >= 0) ::close(event->fd);
        return false;
      }
      if (event->fd < 0) continue;  // queue overflow: nothing to answer
      if ((event->mask & FAN_OPEN_EXEC_PERM) == 0) {
        if ((event->mask & FAN_OPEN_PERM) != 0) {
          HandleOpen(event->fd, event->pid, here);
        } else {
          ::close(event->fd);
        }
        continue;
      }
      m_counters.starts.fetch_add(1);
      HandleStart(event->fd, event->pid, here);
    }
    // A deciding thread goes back to waiting: the next event may be another
    // thread's already.
    if (here) return true;
  }
}

void FanotifyListener::HandleStart(int fd, std::int32_t pid, bool here) {
  ZEL_TRACE(m_tracer, zel::trace_level::Info) << "enforce: start held, pid " << pid;
  if (pid == m_self) {
    // Never wait on ourselves: a decision that needed a start of this
    // process would wait for itself.
    m_counters.undecided.fetch_add(1);
    m_counters.allowed.fetch_add(1);
    Respond(fd, true);
    ::close(fd);
    return;
  }
  std::shared_ptr<ExecJob> job;
  try {
    job = std::make_shared<ExecJob>(*this, fd, static_cast<std::uint32_t>(pid));
  } catch (...) {
    m_counters.undecided.fetch_add(1);
    AnswerByPolicy(fd);
    ::close(fd);
    return;
  }
  if (here) {
    m_pool->RunHere(std::move(job));
  } else {
    m_pool->Submit(std::move(job));
  }
}

namespace {
std::uint32_t NowMs() noexcept {
  return static_cast<std::uint32_t>(
      std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now().time_since_epoch())
          .count());
}
// An exec's own open comes within microseconds of its answer; a note older
// than this was left by an exec that failed after all.
constexpr std::uint32_t kExecNoteMs = 500;
}  // namespace

void FanotifyListener::NoteExecAllowed(std::uint32_t pid) noexcept {
  if (m_loaders.empty()) return;
  m_recentExecs[pid % kRecentExecs].store((static_cast<std::uint64_t>(pid) << 32) | NowMs());
}

bool FanotifyListener::TakeExecAllowed(std::int32_t pid) noexcept {
  std::atomic<std::uint64_t>& slot = m_recentExecs[static_cast<std::uint32_t>(pid) % kRecentExecs];
  std::uint64_t note = slot.load();
  if ((note >> 32) != static_cast<std::uint32_t>(pid) || !slot.compare_exchange_strong(note, 0)) return false;
  return NowMs() - static_cast<std::uint32_t>(note) < kExecNoteMs;
}

bool FanotifyListener::IsLoaderOpeningItsProgram(int fd, std::int32_t pid) {
  if (m_loaders.empty() || pid == m_self || pid <= 0) return false;
  if (TakeExecAllowed(pid)) return false;  // the open of an exec just allowed
  char path[PATH_MAX];
  const char* proc = m_options.procRoot.c_str();
  std::snprintf(path, sizeof path, "%s/%d/exe", proc, pid);
  struct stat exe {};
  // The kernel's answer: the file the process runs, whatever it is called.
  if (::stat(path, &exe) != 0) return false;
  if (std::find(m_loaders.begin(), m_loaders.end(), FileId{exe.st_dev, exe.st_ino}) == m_loaders.end()) return false;

  // A loader: is this its program, or one of the libraries it loads?
  char commandLine[4096];
  std::snprintf(path, sizeof path, "%s/%d/cmdline", proc, pid);
  const int cmd = ::open(path, O_RDONLY | O_CLOEXEC);
  if (cmd < 0) return false;
  const ssize_t n = ::read(cmd, commandLine, sizeof commandLine);
  ::close(cmd);
  if (n <= 0) return false;
  const std::string program = LoaderProgram(std::string_view(commandLine, static_cast<std::size_t>(n)));
  if (program.empty()) return false;
  struct stat opened {};
  if (::fstat(fd, &opened) != 0 || !S_ISREG(opened.st_mode)) return false;
  // Its name as the process sees it: from its root or its working directory.
  const std::string named = m_options.procRoot + "/" + std::to_string(pid) +
                            (program.front() == '/' ? "/root" : "/cwd/") + program;
  struct stat given {};
  if (::stat(named.c_str(), &given) != 0 || given.st_dev != opened.st_dev || given.st_ino != opened.st_ino)
    return false;
  unsigned char magic[4] = {};
  return ::pread(fd, magic, sizeof magic, 0) == 4 && magic[0] == 0x7f && magic[1] == 'E' && magic[2] == 'L' &&
         magic[3] == 'F';
}

void FanotifyListener::HandleOpen(int fd, std::int32_t pid, bool here) {
  if (!IsLoaderOpeningItsProgram(fd, pid)) {
    Respond(fd, true);
    ::close(fd);
    return;
  }
  ZEL_TRACE(m_tracer, zel::trace_level::Info) << "enforce: a program opened by the dynamic loader, pid " << pid;
  m_counters.starts.fetch_add(1);
  HandleStart(fd, pid, here);
}

void FanotifyListener::PublishLoop() {
  std::vector<PendingReport> batch;
  while (m_published.PopBatch(batch, kPublishLinger)) {
    for (PendingReport& pending : batch) {
      const ProgramDecision& decision = pending.decision;
      if (pending.pidfd.Get() >= 0) {
        pending.decision.info.processUniqueId =
            m_engine.ProcessUniqueId(pending.pid, pending.ppid, host::PidfdSerial(pending.pidfd.Get()));
        pending.pidfd.Reset();
      }
      zel::result_t r = zel::result::Unexpected;
      try {
        r = m_engine.Report(decision);
      } catch (...) {
        // Reporting can't change what was answered; the next one may fare better.
      }
      if (ZEL_SUCCEEDED(r)) {
        m_counters.published.fetch_add(1);
        continue;
      }
      m_counters.publishFailed.fetch_add(1);
      char code[16];
      std::snprintf(code, sizeof code, "0x%08x", static_cast<unsigned>(r));
      ZEL_TRACE(m_tracer, zel::trace_level::Warning)
          << "enforce: the event of a start of " << decision.facts.path << " (process unique id "
          << decision.info.processUniqueId << ") was not published: " << code;
    }
    batch.clear();
  }
}

void FanotifyListener::Stop() {
  if (m_stopped) return;
  m_stopped = true;
  if (m_started) {
    const std::uint64_t one = 1;
    if (::write(m_wake, &one, sizeof one) < 0) {
      // An eventfd write fails only on overflow, which one write can't reach.
    }
    // The deciding threads end once their decision is answered, below.
    m_reader.join();
    // Starts the reader never took are answered here, the same way as those
    // still being decided.
    alignas(fanotify_event_metadata) char buffer[8192];
    for (;;) {
      const ssize_t length = ::read(m_fan, buffer, sizeof buffer);
      if (length <= 0) break;
      auto* event = reinterpret_cast<fanotify_event_metadata*>(buffer);
      ssize_t left = length;
      for (; FAN_EVENT_OK(event, left); event = FAN_EVENT_NEXT(event, left)) {
        if (event->fd < 0) continue;
        if ((event->mask & FAN_OPEN_EXEC_PERM) == 0 && (event->mask & FAN_OPEN_PERM) != 0) {
          Respond(event->fd, true);  // a plain open, or a loader's: not held at shutdown
        } else if ((event->mask & FAN_OPEN_EXEC_PERM) != 0) {
          m_counters.starts.fetch_add(1);
          if (event->pid == m_self) {
            m_counters.undecided.fetch_add(1);
            m_counters.allowed.fetch_add(1);
            Respond(event->fd, true);
          } else {
            m_counters.timedOut.fetch_add(1);
            AnswerByPolicy(event->fd);
          }
        }
        ::close(event->fd);
      }
    }
    {
      std::lock_guard lock(m_delayMutex);
      m_stopping = true;
    }
    m_delayCut.notify_all();
    // Answers every start still being decided, here or on the pool's workers.
    m_pool->Stop();
    for (std::thread& t : m_deciders) t.join();
  }
  if (m_fan >= 0) ::close(std::exchange(m_fan, -1));
  if (m_wake >= 0) ::close(std::exchange(m_wake, -1));
  for (const int epoll : m_epolls) ::close(epoll);
  m_epolls.clear();
  m_published.Close();
  if (m_publisher.joinable()) m_publisher.join();
}

EnforceCountersSnapshot FanotifyListener::Counters() const {
  EnforceCountersSnapshot s;
  s.decided = m_counters.decided.load();
  s.allowed = m_counters.allowed.load();
  s.blocked = m_counters.blocked.load();
  s.testMode = m_counters.testMode.load();
  s.timedOut = m_counters.timedOut.load();
  s.undecided = m_counters.undecided.load();
  s.dropped = m_published.Dropped();
  s.starts = m_counters.starts.load();
  s.published = m_counters.published.load();
  s.publishFailed = m_counters.publishFailed.load();
  s.hashCacheHits = m_engine.Hashes().Stats().hits;
  return s;
}

void FanotifyListener::WithDecisionsHeld(const std::function<void()>& change) {
  std::unique_lock gate(m_gate);
  change();
}

}  // namespace host::engine
