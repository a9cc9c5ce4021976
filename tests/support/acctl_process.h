// Running the built acctl (or any program) as a user does, from integration
// tests: a child with its output in files, whose every wait is bounded so
// that a hang fails the test instead of hanging it; a scratch directory per
// test; and the guard of the tests that need root and fanotify.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/fanotify.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace test_support {

using Clock = std::chrono::steady_clock;

inline std::string Slurp(const std::string& path) {
  std::ifstream in(path);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

inline std::size_t CountOf(const std::string& text, const std::string& part) {
  std::size_t n = 0;
  for (std::size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) ++n;
  return n;
}

// Why live enforcement can't be tried here; empty when it can.
inline std::string FanotifyUnavailable() {
  if (::geteuid() != 0) return "not root";
  const int fd = ::fanotify_init(FAN_CLASS_CONTENT | FAN_CLOEXEC, O_RDONLY);
  if (fd < 0) return std::string("fanotify refused: ") + std::strerror(errno);
  ::close(fd);
  return {};
}

inline bool UnderCi() {
  const char* ci = std::getenv("CI");
  return ci != nullptr && *ci != '\0' && std::string(ci) != "false";
}

// Skips the test for a reason (when not empty), except under CI, where it fails.
#define REQUIRE(reason)                                                   \
  do {                                                                    \
    if (const std::string why = (reason); !why.empty()) {                \
      if (test_support::UnderCi()) FAIL() << "must run under CI: " << why; \
      GTEST_SKIP() << why;                                                \
    }                                                                     \
  } while (0)
#define REQUIRE_FANOTIFY() REQUIRE(test_support::FanotifyUnavailable())

// What became of one program start.
struct Started {
  int execError = -1;  // 0: the program runs; else the errno of execv
  int exitCode = -1;   // when it ran
};

// A child running argv, stdin from /dev/null, stdout and stderr in files
// emptied before it runs (what an earlier run left must not pass for its
// output). A failed exec comes back through a pipe that a successful one
// closes.
class Child {
 public:
  explicit Child(std::vector<std::string> argv, const std::string& out = "/dev/null",
                 const std::string& err = "/dev/null", uid_t asUser = 0)
      : m_argv(std::move(argv)) {
    std::vector<char*> raw;
    for (std::string& a : m_argv) raw.push_back(a.data());
    raw.push_back(nullptr);
    int fds[2];
    if (::pipe2(fds, O_CLOEXEC) != 0) return;
    const int files[] = {::open("/dev/null", O_RDONLY | O_CLOEXEC),
                         ::open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644),
                         ::open(err.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644)};
    m_pid = ::fork();
    if (m_pid == 0) {
      for (int i = 0; i < 3; ++i) ::dup2(files[i], i);
      if (asUser == 0 || ::setuid(asUser) == 0) ::execv(raw[0], raw.data());
      const int e = errno;
      [[maybe_unused]] const ssize_t n = ::write(fds[1], &e, sizeof e);
      ::_exit(127);
    }
    for (int fd : files) ::close(fd);
    ::close(fds[1]);
    m_pipe = fds[0];
  }
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;
  ~Child() {
    if (m_pipe >= 0) ::close(m_pipe);
    if (m_pid > 0 && m_exit == kRunning) {
      ::kill(m_pid, SIGKILL);
      ::waitpid(m_pid, nullptr, 0);
    }
  }
  pid_t Pid() const { return m_pid; }
  void Signal(int sig) const { ::kill(m_pid, sig); }

  // Whether the start was answered yet (the program runs or its exec failed).
  bool Answered() const {
    pollfd p{m_pipe, POLLIN, 0};
    return ::poll(&p, 1, 0) == 1;
  }

  // The exit code (128 + signal when killed); -1 when it did not end in time.
  int Exit(std::chrono::milliseconds limit = std::chrono::minutes(2)) {
    const auto until = Clock::now() + limit;
    while (m_exit == kRunning) {
      int status = 0;
      if (::waitpid(m_pid, &status, WNOHANG) == m_pid) {
        m_exit = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
      } else if (Clock::now() >= until) {
        return -1;
      } else {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
      }
    }
    return m_exit;
  }

  // The exec's outcome, then (when it ran) the exit code; both bounded.
  Started Wait(std::chrono::milliseconds limit = std::chrono::seconds(10)) {
    Started s;
    pollfd p{m_pipe, POLLIN, 0};
    if (::poll(&p, 1, static_cast<int>(limit.count())) != 1) {
      ADD_FAILURE() << "the start of pid " << m_pid << " was not answered within " << limit.count() << " ms";
      return s;
    }
    int e = 0;
    s.execError = ::read(m_pipe, &e, sizeof e) == sizeof e ? e : 0;
    const int code = Exit(limit);
    if (code < 0) ADD_FAILURE() << "pid " << m_pid << " did not end";
    if (s.execError == 0) s.exitCode = code;
    return s;
  }

 private:
  static constexpr int kRunning = -1000;
  std::vector<std::string> m_argv;
  pid_t m_pid = -1;
  int m_pipe = -1;
  int m_exit = kRunning;
};

// acctl given a shell's command line, its output in PREFIX.out and PREFIX.err.
class Acctl : public Child {
 public:
  Acctl(const std::string& commandLine, const std::string& prefix, uid_t asUser = 0)
      : Child({"/bin/sh", "-c", "exec " + commandLine}, prefix + ".out", prefix + ".err", asUser),
        m_out(prefix + ".out"), m_err(prefix + ".err") {}

  // Waits until stderr (or stdout) holds `text` `occurrences` times; false
  // when the program ended or the time ran out first.
  bool WaitForErr(const std::string& text, std::size_t occurrences = 1, bool inOut = false) {
    const auto seen = [&] { return CountOf(inOut ? Out() : Err(), text) >= occurrences; };
    for (const auto until = Clock::now() + std::chrono::seconds(30); Clock::now() < until;
         std::this_thread::sleep_for(std::chrono::milliseconds(5))) {
      if (seen()) return true;
      if (Exit(std::chrono::milliseconds(0)) >= 0) return seen();
    }
    return false;
  }
  bool WaitReady() { return WaitForErr("acctl: enforcing on "); }
  // At trace level 800 each start the listener holds has its line.
  bool WaitHeld(pid_t pid) { return WaitForErr("enforce: start held, pid " + std::to_string(pid)); }
  int Stop(int sig = SIGTERM) {
    Signal(sig);
    return Exit();
  }

  std::string Out() const { return Slurp(m_out); }
  std::string Err() const { return Slurp(m_err); }

 private:
  std::string m_out, m_err;
};

struct AcctlOutcome {
  int exitCode = -1;  // -1 when acctl did not end in time
  std::string out;
  std::string err;
};

// A fixture owning a scratch directory; `globalArgs` go before every verb
// (e.g. a --db of the test's own).
class AcctlProcessTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char pattern[] = "/tmp/acctl_test_XXXXXX";
    ASSERT_NE(::mkdtemp(pattern), nullptr);
    dir = pattern;
  }
  void TearDown() override { std::filesystem::remove_all(dir); }

  // Starts acctl in the background, its output in `name`.out and `name`.err.
  std::unique_ptr<Acctl> Spawn(const std::string& args, const std::string& name = "acctl", uid_t asUser = 0) {
    const std::string line = std::string(ACCTL_PATH) + (globalArgs.empty() ? "" : " " + globalArgs) + " " + args;
    return std::make_unique<Acctl>(line, dir + "/" + name, asUser);
  }

  AcctlOutcome Run(const std::string& args, uid_t asUser = 0) {
    const std::unique_ptr<Acctl> acctl = Spawn(args, "run", asUser);
    return {acctl->Exit(), acctl->Out(), acctl->Err()};
  }

  std::string Write(const std::string& name, const std::string& text) {
    const std::string path = dir + "/" + name;
    std::ofstream(path) << text;
    return path;
  }

  std::string dir;
  std::string globalArgs;
};

}  // namespace test_support
