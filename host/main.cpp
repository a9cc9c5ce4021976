// acctl: the reference host's command-line program. It loads the module
// the way the service process does and drives it through its entry points.
//
//   acctl [--module PATH] [--trace LEVEL] [--db PATH] [--events FILE] COMMAND ...
//   acctl --version
//
//   demo (the default)   the start-log dispatcher with two printing sinks
//   run --settings S.json [--categories C.json] [--starts FILE] [PATH[:USER[:PID]]...]
//                        application control on the given program starts
//   categories import FILE | categories export
//   enforce --settings S.json [--categories C.json] (--watch DIR | --mount PATH)...
//                        application control on this machine's program starts
//   scan [ROOT...] [--settings S.json] [--golden-image add|remove] ...
//                        the inventory scan; SIGINT stops, SIGUSR1/SIGUSR2 pause and resume
//   inventory [--json] [--from N --count M] [--id ID]
//                        what the scans stored
//   status [--json]      the store and whether enforcement runs here
//
// The commands live in host/cli/.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <string>
#include <vector>

#include "host/cli/cli.h"
#include "host/cli/install_layout.h"
#include "zel/itracer.h"

namespace {

// --help prints to stdout; a usage error to stderr.
// An error is one line whatever its text holds: a parser's message may run
// over several, each indented. A line break and the indentation after it
// become one space; every other character stays as it is.
std::string OneLine(const char* text) {
  std::string line;
  bool broken = false;
  for (const char* c = text; *c != '\0'; ++c) {
    if (*c == '\n' || *c == '\r') {
      broken = true;
    } else if (broken && (*c == ' ' || *c == '\t')) {
      continue;
    } else {
      if (broken && !line.empty() && line.back() != ' ') line += ' ';
      broken = false;
      line += *c;
    }
  }
  return line;
}

void Usage(std::FILE* out = stderr) {
  std::fprintf(out,
               "usage: acctl [--module PATH] [--trace LEVEL] [--db PATH] [--events FILE] COMMAND\n"
               "       acctl --version\n"
               "  demo\n"
               "  run --settings SETTINGS.json [--categories CATEGORIES.json] [--starts FILE] "
               "[PATH[:USER[:PID]]...]\n"
               "  categories import FILE | categories export\n"
               "  enforce --settings SETTINGS.json [--categories CATEGORIES.json] (--watch DIR | --mount PATH)...\n"
               "          [--on-timeout allow|deny] [--decision-timeout MS] [--events FILE] [--json]\n"
               "  scan [ROOT...] [--settings SCAN.json] [--mask GLOB]... [--no-first-group] [--no-second-group]\n"
               "       [--no-exec-bit] [--golden-image add|remove] [--interval SECONDS] [--json]\n"
               "  inventory [--json] [--from N] [--count M] [--id ID]\n"
               "  status [--json]\n");
}

}  // namespace

int main(int argc, char** argv) {
  host::cli::GlobalOptions options;
  options.modulePath = host::cli::DefaultModulePath(AC_INSTALLED_MODULE_PATH, AC_DEFAULT_MODULE_PATH);
  if (const char* env = std::getenv("ACCTL_MODULE")) options.modulePath = env;
  options.traceLevel = zel::trace_level::Notice;
  int i = 1;
  for (; i < argc && argv[i][0] == '-'; ++i) {
    const bool hasValue = i + 1 < argc;
    if (std::strcmp(argv[i], "--module") == 0 && hasValue) {
      options.modulePath = argv[++i];
    } else if (std::strcmp(argv[i], "--db") == 0 && hasValue) {
      options.dbPath = argv[++i];
    } else if (std::strcmp(argv[i], "--events") == 0 && hasValue) {
      options.eventsPath = argv[++i];
    } else if (std::strcmp(argv[i], "--trace") == 0 && hasValue) {
      char* end = nullptr;
      const unsigned long level = std::strtoul(argv[++i], &end, 10);
      if (*end != '\0' || level > zel::trace_level::Max) {
        Usage();
        return 2;
      }
      options.traceLevel = static_cast<std::uint32_t>(level);
    } else if (std::strcmp(argv[i], "--version") == 0) {
      std::printf("acctl %s\n", AC_VERSION);
      return 0;
    } else if (std::strcmp(argv[i], "--help") == 0 || std::strcmp(argv[i], "-h") == 0) {
      Usage(stdout);
      return 0;
    } else {
      Usage();
      return 2;
    }
  }
  const std::string command = i < argc ? argv[i++] : "demo";
  const std::vector<std::string> args(argv + i, argv + argc);
  try {
    if (command == "demo") return host::cli::RunDemo(options, args);
    if (command == "run") return host::cli::RunRules(options, args);
    if (command == "categories") return host::cli::RunCategories(options, args);
    if (command == "enforce") return host::cli::RunEnforce(options, args);
    if (command == "scan") return host::cli::RunScan(options, args);
    if (command == "inventory") return host::cli::RunInventory(options, args);
    if (command == "status") return host::cli::RunStatus(options, args);
    std::fprintf(stderr, "acctl: unknown command '%s'\n", command.c_str());
    Usage();
    return 2;
  } catch (const host::cli::UsageError& e) {
    std::fprintf(stderr, "acctl: %s\n", OneLine(e.what()).c_str());
    return 2;
  } catch (const std::exception& e) {
    std::fprintf(stderr, "acctl: %s\n", OneLine(e.what()).c_str());
    return 1;
  }
}
