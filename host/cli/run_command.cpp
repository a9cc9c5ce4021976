// acctl run: application control end to end. The module's task is made
// from the given settings, the engine is fed program starts, and what the
// task publishes for them is printed as JSON lines.
#include <pwd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <sstream>
#include <string>
#include <vector>

#include "app_control/interfaces/itask.h"
#include "host/cli/app_control_run.h"
#include "host/cli/cli.h"
#include "host/cli/host_session.h"
#include "host/cli/internal/arg_reader.h"
#include "host/cli/settings_json.h"

namespace host::cli {
namespace {

struct RunArgs {
  std::string settingsPath;
  std::string categoriesPath;
  std::string startsPath;
  std::vector<std::string> starts;
  bool help = false;
};

constexpr const char* kRunUsage =
    "usage: acctl run --settings SETTINGS.json [--categories CATEGORIES.json] [--starts FILE]\n"
    "                 [PATH[:USER[:PID]]...]\n"
    "  Runs application control on the given program starts and prints what it\n"
    "  publishes for each as a JSON line. FILE holds one start a line:\n"
    "  PATH [USER [PID]]; blank lines and lines starting with # are skipped.\n";

std::uint32_t ParseNumber(const std::string& text, const std::string& what) {
  char* end = nullptr;
  errno = 0;
  const unsigned long value = std::strtoul(text.c_str(), &end, 10);
  if (text.empty() || *end != '\0' || errno != 0 || value > 0xFFFFFFFFul || text[0] == '-')
    throw UserError("bad " + what + " '" + text + "'");
  return static_cast<std::uint32_t>(value);
}

std::uint32_t ParseUser(const std::string& text) {
  if (text.empty()) return ::getuid();
  if (text.find_first_not_of("0123456789") == std::string::npos) return ParseNumber(text, "user id");
  std::vector<char> buffer(16384);
  passwd entry{};
  passwd* found = nullptr;
  if (::getpwnam_r(text.c_str(), &entry, buffer.data(), buffer.size(), &found) != 0 || found == nullptr)
    throw UserError("unknown user '" + text + "'");
  return found->pw_uid;
}

engine::ProgramStart MakeStart(const std::string& path, const std::string& user, const std::string& pid) {
  if (path.empty()) throw UserError("a program start without a path");
  engine::ProgramStart start;
  start.path = path;
  start.uid = ParseUser(user);
  start.pid = pid.empty() ? static_cast<std::uint32_t>(::getpid()) : ParseNumber(pid, "process id");
  return start;
}

// PATH[:USER[:PID]]
engine::ProgramStart StartFromArgument(const std::string& text) {
  std::string parts[3];
  std::size_t from = 0;
  for (int i = 0; i < 3; ++i) {
    const std::size_t colon = i < 2 ? text.find(':', from) : std::string::npos;
    parts[i] = text.substr(from, colon == std::string::npos ? std::string::npos : colon - from);
    if (colon == std::string::npos) break;
    from = colon + 1;
  }
  return MakeStart(parts[0], parts[1], parts[2]);
}

// Lines "path [user [pid]]"; blank lines and lines starting with '#' are skipped.
std::vector<engine::ProgramStart> StartsFromFile(const std::string& path) {
  std::istringstream lines(ReadFile(path));
  std::vector<engine::ProgramStart> starts;
  std::string line;
  for (int number = 1; std::getline(lines, line); ++number) {
    std::istringstream words(line);
    std::string program, user, pid, extra;
    if (!(words >> program) || program[0] == '#') continue;
    words >> user >> pid;
    if (words >> extra) throw UserError(path + ":" + std::to_string(number) + ": expected \"path [user [pid]]\"");
    try {
      starts.push_back(MakeStart(program, user, pid));
    } catch (const UserError& e) {
      throw UserError(path + ":" + std::to_string(number) + ": " + e.what());
    }
  }
  return starts;
}

RunArgs ParseArgs(const std::vector<std::string>& args) {
  RunArgs out;
  ArgReader r("run", args);
  while (r.Next()) {
    if (r.Is("--settings")) {
      out.settingsPath = r.Value();
    } else if (r.Is("--categories")) {
      out.categoriesPath = r.Value();
    } else if (r.Is("--starts")) {
      out.startsPath = r.Value();
    } else if (r.IsHelp()) {
      out.help = true;
      return out;
    } else {
      out.starts.push_back(r.Operand());
    }
  }
  if (out.settingsPath.empty()) r.Fail("--settings SETTINGS.json is required");
  return out;
}

}  // namespace

int RunRules(const GlobalOptions& options, const std::vector<std::string>& args) {
  const RunArgs run = ParseArgs(args);
  if (run.help) {
    std::fputs(kRunUsage, stdout);
    return 0;
  }
  // Every input is read and checked before anything is loaded.
  tov::settings::AppControlSettings settings = SettingsFromJson(ReadFile(run.settingsPath), run.settingsPath);
  const std::string categoriesJson = run.categoriesPath.empty() ? std::string() : ReadFile(run.categoriesPath);
  std::vector<engine::ProgramStart> starts;
  if (!run.startsPath.empty()) starts = StartsFromFile(run.startsPath);
  for (const std::string& s : run.starts) starts.push_back(StartFromArgument(s));

  return RunAppControlTask(options, settings, categoriesJson, run.categoriesPath, [&](AppControlRun& ac) {
    for (const engine::ProgramStart& start : starts) {
      const zel::result_t r = ac.session.engine->engine.SubmitProgramStart(start);
      if (ZEL_FAILED(r)) return Fail(("submitting " + start.path).c_str(), r);
      // One start at a time, so the events come out in the order given.
      ac.session.engine->engine.WaitIdle();
    }
    return 0;
  });
}

}  // namespace host::cli
