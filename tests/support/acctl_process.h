// Running the built acctl as a user does, from integration tests: a scratch
// directory per test, a command run to completion with its output captured
// in files, or started in the background and signalled later.
#pragma once

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>

namespace test_support {

struct AcctlOutcome {
  int exitCode = -1;  // -1 when acctl did not exit normally
  std::string out;
  std::string err;
};

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

// A fixture owning a scratch directory; `globalArgs` go before every verb
// (e.g. a --db of the test's own).
class AcctlProcessTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char pattern[] = "/tmp/acctl_test_XXXXXX";
    ASSERT_NE(::mkdtemp(pattern), nullptr);
    dir = pattern;
  }
  void TearDown() override { std::system(("rm -rf '" + dir + "'").c_str()); }

  AcctlOutcome Run(const std::string& args) {
    const std::string out = dir + "/out", err = dir + "/err";
    const int status = std::system((CommandLine(args) + " >'" + out + "' 2>'" + err + "' </dev/null").c_str());
    AcctlOutcome o;
    o.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    o.out = Slurp(out);
    o.err = Slurp(err);
    return o;
  }

  // Starts acctl in the background, its output in `name`.out and `name`.err.
  pid_t Spawn(const std::string& args, const std::string& name) {
    const std::string command = "exec " + CommandLine(args) + " >'" + dir + "/" + name + ".out' 2>'" + dir + "/" +
                                name + ".err' </dev/null";
    const pid_t pid = ::fork();
    if (pid == 0) {
      ::execl("/bin/sh", "sh", "-c", command.c_str(), static_cast<char*>(nullptr));
      ::_exit(127);
    }
    return pid;
  }

  static int Wait(pid_t pid) {
    int status = 0;
    ::waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }

  // Polls a file for up to 30 s.
  static bool WaitForText(const std::string& file, const std::string& text) {
    for (int i = 0; i < 3000; ++i) {
      if (Slurp(file).find(text) != std::string::npos) return true;
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return false;
  }

  std::string Write(const std::string& name, const std::string& text) {
    const std::string path = dir + "/" + name;
    std::ofstream(path) << text;
    return path;
  }

  std::string dir;
  std::string globalArgs;

 private:
  std::string CommandLine(const std::string& args) const {
    return std::string(ACCTL_PATH) + (globalArgs.empty() ? "" : " " + globalArgs) + " " + args;
  }
};

}  // namespace test_support
