// host::engine::FanotifyListener: live enforcement. Program starts in the
// marked directories or mounts are held by the kernel (fanotify permission
// events, FAN_OPEN_EXEC_PERM) until the engine decides them: the file's
// facts come from the event's own descriptor (hashed through the engine's
// cache, never reopened by path), the user from the process (StartProbe);
// the verdict becomes FAN_ALLOW or FAN_DENY (only a real block denies: test-mode
// verdicts always allow), and the decision is reported to the engine's
// subscribers like any other.
//
// The dynamic loader can start a program without an exec of it
// (`ld-linux-x86-64.so.2 PROGRAM`): it opens and maps the file. So the same
// places are also marked for FAN_OPEN_PERM, and an open by a process whose
// executable is the loader (by the kernel's /proc/PID/exe, compared by
// device and inode, not by name), of the ELF file its command line names as
// the program, is decided as a start of that file. Every other open is
// allowed at once: one stat of /proc/PID/exe, no hashing, no report.
//
// A start costs as little as it can: a few deciding threads wait on the
// group themselves (one of them woken per event) and decide the start they
// read on the spot, with no hand-over; only when all of them are busy does
// an overflow reader take the event and queue it for the pool's workers.
// The verdict is written before anything is published.
//
// It must never hang the machine:
// - starts made by this process are allowed at once, undecided;
// - decisions, wherever they run, are under a small DeadlinePool's deadline:
//   a start not decided in time is answered by the time-out policy and
//   counted;
// - reporting runs on its own thread behind a BoundedQueue, in batches, so
//   a slow publisher drops events (counted) but never holds a start; a
//   decision a subscriber refuses is counted and traced, never lost unseen;
// - Stop, and a fatal error of the reader, answer every pending start
//   before the fanotify descriptor is closed; and should the process die
//   anyway, the kernel allows what it still holds once the group closes.
#pragma once

#include <sys/types.h>

#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <shared_mutex>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "host/engine/bounded_queue.h"
#include "host/engine/deadline_pool.h"
#include "host/engine/engine.h"
#include "host/engine/enforce_counters.h"
#include "host/services/pidfd.h"
#include "zel/itracer.h"

namespace host::engine {

struct FanotifyOptions {
  std::vector<std::string> watchDirs;  // each marked with FAN_EVENT_ON_CHILD: the programs directly in it
  std::vector<std::string> mounts;     // the whole mount that holds each path
  bool denyOnTimeout = false;          // the time-out policy; allow by default
  std::chrono::milliseconds decisionTimeout{1000};
  std::size_t workers = 2;
  std::size_t publishQueue = 4096;
  // Testing aid: each decision waits this long first, so that starts stay
  // pending for a while.
  std::chrono::milliseconds decisionDelay{0};
  std::string procRoot = "/proc";
  // Also hold a program started through the dynamic loader (FAN_OPEN_PERM).
  bool loaderStarts = true;
};

// The dynamic loaders of this system: the files behind the usual names
// (ld-linux*.so*, ld-musl-*.so*, ld.so in the library directories), by
// device and inode.
struct FileId {
  dev_t dev = 0;
  ino_t ino = 0;
  friend bool operator==(const FileId&, const FileId&) = default;
};
std::vector<FileId> FindDynamicLoaders();

// The program a dynamic loader was asked to run, from its command line
// (argv[0] first, NUL-separated): the first operand after the loader's own
// options. Empty when there is none (`ld.so --help`, `ld.so` alone).
std::string LoaderProgram(std::string_view commandLine);

// The user and the parent of a process, from <procRoot>/<pid>/status.
struct ProcessIdentity {
  std::uint32_t uid = 0;  // the real user id
  std::uint32_t ppid = 0;
  std::uint64_t pidfdSerial = 0;  // when read from a pidfd on pidfs; else 0
};
std::optional<ProcessIdentity> ReadProcessIdentity(const std::string& procRoot, std::uint32_t pid);

// The same from the kernel's pidfd information (PIDFD_GET_INFO, Linux 6.13
// and later), without procfs. nullopt when the process is gone, and with
// `unsupported` set when this kernel can't tell at all.
// With `keep`, as QueryPidfd: no serial, and the pidfd handed over.
std::optional<ProcessIdentity> QueryProcessIdentity(std::uint32_t pid, bool* unsupported,
                                                    host::PidfdHandle* keep = nullptr);

// The path of an open descriptor, as <procRoot>/self/fd/<fd> names it. A
// file deleted since it was opened loses the kernel's " (deleted)" mark and
// sets `deleted`. Empty when the link can't be read.
std::string PathOfDescriptor(const std::string& procRoot, int fd, bool* deleted);

// What a start needs from procfs, read the cheap way. A start's process and
// its descriptor are new to procfs each time, so every name looked up there
// costs the kernel a fresh entry: the identity comes from the process's
// pidfd where the kernel offers it (only with the real /proc: a copy given
// for tests is read as files), and descriptor paths are read relative to a
// <procRoot>/self/fd kept open. Thread safe: nothing changes after
// construction.
class StartProbe {
 public:
  explicit StartProbe(std::string procRoot);
  StartProbe(const StartProbe&) = delete;
  StartProbe& operator=(const StartProbe&) = delete;
  ~StartProbe();

  // With `keep`, where the identity came from a pidfd, the pidfd is handed
  // over and the serial left to read once the start is answered.
  std::optional<ProcessIdentity> Identity(std::uint32_t pid, host::PidfdHandle* keep = nullptr) const;
  // As PathOfDescriptor.
  std::string PathOf(int fd, bool* deleted) const;
  bool UsesPidfd() const noexcept { return m_pidfd; }

 private:
  const std::string m_procRoot;
  int m_fdDir = -1;
  bool m_pidfd = false;
};

class FanotifyListener {
 public:
  enum class OpenError { None, NotPermitted, NotSupported, BadPath, Failed };

  // `tracer` (may be null) receives one line for each start decided on
  // incomplete facts (level 700), for each decision not published (500),
  // and for each event (level 800). The
  // engine and the tracer must outlive the listener.
  FanotifyListener(Engine& engine, FanotifyOptions options, zel::ITracer* tracer);
  FanotifyListener(const FanotifyListener&) = delete;
  FanotifyListener& operator=(const FanotifyListener&) = delete;
  // Stops.
  ~FanotifyListener();

  // Makes the fanotify group and places every mark. On failure `message`
  // says what and where, and nothing is left open.
  OpenError Open(std::string* message);
  // Starts the reader, the decision pool and the reporting thread.
  void Start();
  // Answers every pending start (time-out policy), closes the group, then
  // reports what was decided in time. Idempotent.
  void Stop();

  // The reader met an error it can't go on after; the caller should Stop.
  bool Failed() const noexcept { return m_failed.load(); }
  std::string FailureText() const;
  std::size_t Marks() const noexcept { return m_marks; }
  EnforceCountersSnapshot Counters() const;

  // Runs `change` while no decision is under way and none begins: a new set
  // of rules and categories is seen by a decision whole or not at all.
  void WithDecisionsHeld(const std::function<void()>& change);

 private:
  class ExecJob;
  friend class ExecJob;
  // A decision on its way to the subscribers, with the pidfd of its process
  // when the process's unique id is still to be made (after the answer).
  struct PendingReport {
    ProgramDecision decision;
    std::uint32_t pid = 0;
    std::uint32_t ppid = 0;
    host::PidfdHandle pidfd;
  };

  // Deciding thread: reads one event at a time and decides it itself.
  void DecideLoop(int epoll);
  // Overflow reader: takes what the deciding threads can't and queues it.
  void ReadLoop(int epoll);
  // Waits on `epoll` for an event or for Stop: false when stopping or failed.
  bool WaitForEvent(int epoll);
  // Reads what is there (at most `size` bytes) and handles each start, on
  // this thread (`here`) or through the pool's queue. False on a fatal error.
  bool ReadEvents(std::size_t size, bool here);
  void HandleStart(int fd, std::int32_t pid, bool here);
  // A plain open: decided as a start when it is the loader opening its
  // program, otherwise allowed at once. Owns `fd`.
  void HandleOpen(int fd, std::int32_t pid, bool here);
  bool IsLoaderOpeningItsProgram(int fd, std::int32_t pid);
  // An exec allowed makes a plain open of its own right after the answer;
  // that one is let through without a look at the process, which in the
  // middle of its exec costs procfs tens of microseconds. Noted before the
  // answer, taken once; a slot lost to another pid only costs that look.
  void NoteExecAllowed(std::uint32_t pid) noexcept;
  bool TakeExecAllowed(std::int32_t pid) noexcept;
  void PublishLoop();
  void Respond(int eventFd, bool allow);
  void AnswerByPolicy(int eventFd);
  void Fail(std::string text);
  // The testing delay before a decision; false when Stop cut it short.
  bool HoldDecision();

  Engine& m_engine;
  const FanotifyOptions m_options;
  const StartProbe m_probe;
  zel::ITracer* const m_tracer;
  const pid_t m_self;
  const std::vector<FileId> m_loaders;
  static constexpr std::size_t kRecentExecs = 256;
  std::array<std::atomic<std::uint64_t>, kRecentExecs> m_recentExecs{};  // pid << 32 | milliseconds
  int m_fan = -1;
  int m_wake = -1;  // eventfd that stops the reader
  std::size_t m_marks = 0;
  std::atomic<bool> m_failed{false};
  mutable std::mutex m_failureMutex;
  std::string m_failure;
  std::shared_mutex m_gate;
  std::mutex m_delayMutex;
  std::condition_variable m_delayCut;
  bool m_stopping = false;  // under m_delayMutex
  EnforceCounters m_counters;
  std::unique_ptr<DeadlinePool> m_pool;
  BoundedQueue<PendingReport> m_published;
  std::vector<int> m_epolls;  // the deciding threads' ones first, the overflow reader's last
  std::vector<std::thread> m_deciders;
  std::thread m_reader;
  std::thread m_publisher;
  bool m_started = false;
  bool m_stopped = false;
};

}  // namespace host::engine
