// What live enforcement adds to a program start: fork + exec + wait of a
// copy of /usr/bin/true in a directory that `acctl enforce` watches,
// alternated with the same in a directory it does not watch, in one run
// (so both see the same machine load). Reported: microseconds per start
// without and with the listener, and the difference (of the averages and of
// the medians), with the hash cache warm. A second benchmark gives the
// first-start cost of a 50 MB program (a content never seen, so it is
// hashed while the start waits).
//
// BM_StartAllowAtOnce is the floor under any listener: a thread of this
// process that answers every start FAN_ALLOW the moment it reads it,
// measured the same way. What acctl enforce adds beyond it is its own.
//
// BM_OpenOnAMark and BM_OpenAllowAtOnce do the same for a plain open and
// close of a data file: the marks also hold opens, to catch a program run
// through the dynamic loader, and every other open must cost little more
// than the floor listener's answer.
//
// Needs root (fanotify); skipped with a message otherwise. BM_DecisionWork
// is the part of the added time that is the listener's own work, without
// any thread hand-over: what a start waits for with a warm cache.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <sys/fanotify.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <numeric>
#include <random>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "host/engine/engine.h"
#include "host/engine/fanotify_listener.h"
#include "host/services/process_registry.h"

namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

// Fork, exec, wait: the time of one start, in microseconds; negative when
// the program did not run.
double TimedStart(const std::string& path) {
  const auto begin = Clock::now();
  const pid_t pid = ::fork();
  if (pid == 0) {
    ::execl(path.c_str(), path.c_str(), static_cast<char*>(nullptr));
    ::_exit(127);
  }
  int status = 0;
  ::waitpid(pid, &status, 0);
  const auto end = Clock::now();
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) return -1;
  return std::chrono::duration<double, std::micro>(end - begin).count();
}

// Open and close: the time, in microseconds; negative when it failed.
double TimedOpen(const std::string& path) {
  const auto begin = Clock::now();
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return -1;
  ::close(fd);
  return std::chrono::duration<double, std::micro>(Clock::now() - begin).count();
}

class Listener {
 public:
  Listener() {
    std::string pattern = (fs::temp_directory_path() / "enforce_bench.XXXXXX").string();
    m_root = ::mkdtemp(pattern.data());
    fs::create_directory(Watched());
    fs::create_directory(Plain());
    std::ofstream(m_root / "settings.json")
        << R"J({ "mode": "DenyList", "enforcement": "ApplyRules", "reportAllowedStarts": true,
  "denyListRules": [ { "ruleName": "No blocked", "categoryName": "Blocked",
                       "users": [ { "userName": "\\Everyone", "access": "Block" } ] } ] })J";
    std::ofstream(m_root / "categories.json")
        << R"J([{ "Name": "Blocked", "GUID": "b10c0000000000000000000000000001", "Include": ["(FileName == blocked)"] }])J";
  }
  ~Listener() {
    Stop();
    fs::remove_all(m_root);
  }

  fs::path Watched() const { return m_root / "watched"; }
  fs::path Plain() const { return m_root / "plain"; }

  // Starts acctl enforce on Watched(); false with `error` set when it isn't ready in time.
  bool Start(std::string* error) {
    const fs::path err = m_root / "acctl.err";
    m_pid = ::fork();
    if (m_pid == 0) {
      const int fd = ::open(err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
      ::dup2(fd, 2);
      const std::string events = (m_root / "events.jsonl").string(), settings = (m_root / "settings.json").string(),
                        categories = (m_root / "categories.json").string(), watch = Watched().string();
      ::execl(ACCTL_PATH, ACCTL_PATH, "--events", events.c_str(), "enforce", "--settings", settings.c_str(),
              "--categories", categories.c_str(), "--watch", watch.c_str(), static_cast<char*>(nullptr));
      ::_exit(127);
    }
    const auto until = Clock::now() + std::chrono::seconds(30);
    while (Clock::now() < until) {
      std::ifstream in(err);
      std::ostringstream text;
      text << in.rdbuf();
      if (text.str().find("acctl: enforcing on") != std::string::npos) return true;
      if (::waitpid(m_pid, nullptr, WNOHANG) == m_pid) {
        m_pid = -1;
        *error = "acctl enforce ended: " + text.str();
        return false;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    *error = "acctl enforce was not ready in 30 s";
    return false;
  }

  void Stop() {
    if (m_pid <= 0) return;
    ::kill(m_pid, SIGTERM);
    ::waitpid(m_pid, nullptr, 0);
    m_pid = -1;
  }

 private:
  fs::path m_root;
  pid_t m_pid = -1;
};

// Starts acctl enforce beside the benchmark, or says why it can't.
bool StartListener(benchmark::State& state, Listener& listener) {
  if (::geteuid() != 0) {
    state.SkipWithError("needs root for fanotify");
    return false;
  }
  std::string error;
  if (!listener.Start(&error)) {
    state.SkipWithError(error.c_str());
    return false;
  }
  return true;
}

// Start times of the same program outside and inside the watched directory,
// reported as averages and as medians: on a shared machine a few starts
// that wait a millisecond for the processor move the average by tens of
// microseconds, the median hardly at all.
class SideBySide {
 public:
  // False (and the benchmark marked failed) when either start failed.
  bool Add(benchmark::State& state, double plainUs, double watchedUs) {
    if (plainUs < 0 || watchedUs < 0) {
      state.SkipWithError("a start failed");
      return false;
    }
    m_base.push_back(plainUs);
    m_enforced.push_back(watchedUs);
    return true;
  }
  void Report(benchmark::State& state, const char* enforcedName) {
    if (m_base.empty()) return;
    const double base = Mean(m_base), enforced = Mean(m_enforced);
    state.counters["base_us"] = base;
    state.counters[enforcedName] = enforced;
    state.counters["added_us"] = enforced - base;
    state.counters["added_median_us"] = Median(m_enforced) - Median(m_base);
  }

 private:
  static double Mean(const std::vector<double>& v) { return std::accumulate(v.begin(), v.end(), 0.0) / v.size(); }
  static double Median(std::vector<double>& v) {
    const auto middle = v.begin() + static_cast<std::ptrdiff_t>(v.size() / 2);
    std::nth_element(v.begin(), middle, v.end());
    return *middle;
  }

  std::vector<double> m_base, m_enforced;
};

// The same program started in turn from `plain` and from `watched`, once
// the caches are warm; reported as SideBySide does.
void TimeWarmStarts(benchmark::State& state, const std::string& plain, const std::string& watched,
                    double (*timed)(const std::string&) = TimedStart) {
  for (int i = 0; i < 20; ++i) {  // the hash cache and the page cache warm up
    timed(watched);
    timed(plain);
  }
  SideBySide times;
  for (auto _ : state) {
    const double p = timed(plain), w = timed(watched);
    if (!times.Add(state, p, w)) break;
  }
  times.Report(state, "enforced_us");
}

void BM_StartWarmCache(benchmark::State& state) {
  Listener listener;
  const std::string watched = (listener.Watched() / "true").string(), plain = (listener.Plain() / "true").string();
  fs::copy_file("/usr/bin/true", watched);
  fs::copy_file("/usr/bin/true", plain);
  if (!StartListener(state, listener)) return;
  TimeWarmStarts(state, plain, watched);
}
BENCHMARK(BM_StartWarmCache)->Iterations(2000)->Unit(benchmark::kMicrosecond)->UseRealTime();

// A listener that decides nothing: one thread, blocking reads, FAN_ALLOW for
// every start. Ends when the group is closed under it.
class AllowAtOnce {
 public:
  // False when fanotify can't be had or `dir` can't be marked.
  bool Open(const std::string& dir, std::uint64_t mask = FAN_OPEN_EXEC_PERM) {
    m_fan = ::fanotify_init(FAN_CLASS_CONTENT | FAN_CLOEXEC, O_RDONLY | O_LARGEFILE);
    if (m_fan < 0) return false;
    if (::fanotify_mark(m_fan, FAN_MARK_ADD, mask | FAN_EVENT_ON_CHILD, AT_FDCWD, dir.c_str()) != 0)
      return false;
    m_wake = ::eventfd(0, EFD_CLOEXEC);
    m_thread = std::thread([this] { Loop(); });
    return true;
  }
  ~AllowAtOnce() {
    if (m_thread.joinable()) {
      const std::uint64_t one = 1;
      (void)!::write(m_wake, &one, sizeof one);
      m_thread.join();
    }
    if (m_wake >= 0) ::close(m_wake);
    if (m_fan >= 0) ::close(m_fan);
  }

 private:
  void Loop() {
    alignas(fanotify_event_metadata) char buffer[4096];
    pollfd fds[2] = {{m_fan, POLLIN, 0}, {m_wake, POLLIN, 0}};
    for (;;) {
      // Blocks in read as a plain listener does; the poll only lets it end.
      if (::poll(fds, 2, -1) < 0 || (fds[1].revents & POLLIN) != 0) return;
      const ssize_t n = ::read(m_fan, buffer, sizeof buffer);
      if (n <= 0) continue;
      auto* event = reinterpret_cast<fanotify_event_metadata*>(buffer);
      for (ssize_t left = n; FAN_EVENT_OK(event, left); event = FAN_EVENT_NEXT(event, left)) {
        if (event->fd < 0) continue;
        const fanotify_response answer{event->fd, FAN_ALLOW};
        (void)!::write(m_fan, &answer, sizeof answer);
        ::close(event->fd);
      }
    }
  }

  int m_fan = -1;
  int m_wake = -1;
  std::thread m_thread;
};

void BM_StartAllowAtOnce(benchmark::State& state) {
  if (::geteuid() != 0) {
    state.SkipWithError("needs root for fanotify");
    return;
  }
  Listener dirs;  // its directories only: acctl is not started
  const std::string watched = (dirs.Watched() / "true").string(), plain = (dirs.Plain() / "true").string();
  fs::copy_file("/usr/bin/true", watched);
  fs::copy_file("/usr/bin/true", plain);
  AllowAtOnce listener;
  if (!listener.Open(dirs.Watched().string())) {
    state.SkipWithError("fanotify is not available");
    return;
  }
  TimeWarmStarts(state, plain, watched);
}
BENCHMARK(BM_StartAllowAtOnce)->Iterations(2000)->Unit(benchmark::kMicrosecond)->UseRealTime();

void BM_OpenOnAMark(benchmark::State& state) {
  Listener listener;
  const std::string watched = (listener.Watched() / "data").string(), plain = (listener.Plain() / "data").string();
  std::ofstream(watched) << "data";
  std::ofstream(plain) << "data";
  if (!StartListener(state, listener)) return;
  TimeWarmStarts(state, plain, watched, TimedOpen);
}
BENCHMARK(BM_OpenOnAMark)->Iterations(2000)->Unit(benchmark::kMicrosecond)->UseRealTime();

void BM_OpenAllowAtOnce(benchmark::State& state) {
  if (::geteuid() != 0) {
    state.SkipWithError("needs root for fanotify");
    return;
  }
  Listener dirs;
  const std::string watched = (dirs.Watched() / "data").string(), plain = (dirs.Plain() / "data").string();
  std::ofstream(watched) << "data";
  std::ofstream(plain) << "data";
  AllowAtOnce listener;
  if (!listener.Open(dirs.Watched().string(), FAN_OPEN_PERM)) {
    state.SkipWithError("fanotify is not available");
    return;
  }
  TimeWarmStarts(state, plain, watched, TimedOpen);
}
BENCHMARK(BM_OpenAllowAtOnce)->Iterations(2000)->Unit(benchmark::kMicrosecond)->UseRealTime();

void BM_FirstStart50MB(benchmark::State& state) {
  Listener listener;
  if (!StartListener(state, listener)) return;
  std::string padding(50u << 20, '\0');
  std::mt19937_64 random(42);
  SideBySide times;
  int n = 0;
  for (auto _ : state) {
    state.PauseTiming();
    // A new content each time: ELF ignores what follows its segments.
    for (std::size_t i = 0; i < padding.size(); i += 4096) padding[i] = static_cast<char>(random());
    const std::string name = "big" + std::to_string(n++);
    const std::string watched = (listener.Watched() / name).string(), plain = (listener.Plain() / name).string();
    for (const std::string& path : {watched, plain}) {
      fs::copy_file("/usr/bin/true", path);
      std::ofstream(path, std::ios::binary | std::ios::app) << padding;
    }
    state.ResumeTiming();
    const double p = TimedStart(plain), w = TimedStart(watched);
    state.PauseTiming();
    fs::remove(watched);
    fs::remove(plain);
    state.ResumeTiming();
    if (!times.Add(state, p, w)) break;
  }
  times.Report(state, "first_start_us");
}
BENCHMARK(BM_FirstStart50MB)->Iterations(10)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_DecisionWork(benchmark::State& state) {
  host::ProcessRegistry processes;
  host::engine::Engine engine;
  engine.SetProcessRegistry(&processes);
  host::engine::EacSettings settings;
  settings.allowListMode = 0;
  const int fd = ::open("/usr/bin/true", O_RDONLY | O_CLOEXEC);
  const auto self = static_cast<std::uint32_t>(::getpid());
  engine.DecideOpenFile(fd, {"/usr/bin/true", 0, self}, settings);
  const host::engine::StartProbe probe("/proc");
  // What a start waits for: the pidfd is kept, as the listener keeps it, and
  // closed (with its serial read) later, on the publishing thread; here in
  // batches outside the timing.
  std::vector<host::PidfdHandle> kept;
  for (auto _ : state) {
    bool deleted = false;
    host::engine::ProgramStart start;
    start.path = probe.PathOf(fd, &deleted);
    start.pid = self;
    host::PidfdHandle pidfd;
    const auto who = probe.Identity(start.pid, &pidfd);
    start.uid = who ? who->uid : 0;
    start.uniqueIdLater = pidfd.Get() >= 0;
    benchmark::DoNotOptimize(engine.DecideOpenFile(fd, start, settings));
    kept.push_back(std::move(pidfd));
    if (kept.size() == 256) {
      state.PauseTiming();
      kept.clear();
      state.ResumeTiming();
    }
  }
  engine.SetProcessRegistry(nullptr);
  ::close(fd);
}
BENCHMARK(BM_DecisionWork)->Unit(benchmark::kMicrosecond);

}  // namespace
