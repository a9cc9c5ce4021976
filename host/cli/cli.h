// The commands of acctl, the reference host's command-line program. main
// reads the global options and hands the rest of the command line to one of
// these; each returns the process exit code (0 success, 1 failure, 2 bad
// usage) and reports its own errors on stderr.
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

#include "zel/result.h"

namespace host::cli {

struct GlobalOptions {
  std::string modulePath;
  std::uint32_t traceLevel = 700;
  std::string dbPath;      // empty: the command's default store
  std::string eventsPath;  // empty: stdout
};

// A fault the user can fix (bad file, bad document, bad argument): main
// prints "acctl: <what>" and exits 1.
struct UserError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// A command line the command can't take (unknown option, missing value,
// missing operand): main prints "acctl: <what>" and exits 2.
struct UsageError : UserError {
  using UserError::UserError;
};

// "acctl: <step> failed: <result>" on stderr; returns 1.
int Fail(const char* step, zel::result_t r);

// Reads a whole file; UserError naming it when it can't be read.
std::string ReadFile(const std::string& path);

// A record time (100 ns units since 1601-01-01 UTC) as
// "YYYY-MM-DDTHH:MM:SSZ"; empty for 0, the time of what never happened.
std::string RecordTimeText(std::uint64_t timestamp);

// The persistent store for commands that keep state between runs:
// /var/lib/acctl/acctl.db for root, else $XDG_STATE_HOME/acctl/acctl.db or
// ~/.local/state/acctl/acctl.db.
std::string DefaultStatePath();

// The store of a command that keeps state: --db, or DefaultStatePath(),
// made (when `create`) mode 0600 in a directory of mode 0700. UserError
// naming it when the store, or the default store's directory, is group- or
// world-writable.
std::string StorePath(const GlobalOptions& options, bool create = true);

// UserError when the file at `path` exists and is group- or world-writable.
void CheckStoreMode(const std::string& path);

int RunDemo(const GlobalOptions& options, const std::vector<std::string>& args);
int RunRules(const GlobalOptions& options, const std::vector<std::string>& args);
int RunCategories(const GlobalOptions& options, const std::vector<std::string>& args);
int RunEnforce(const GlobalOptions& options, const std::vector<std::string>& args);
int RunScan(const GlobalOptions& options, const std::vector<std::string>& args);
int RunInventory(const GlobalOptions& options, const std::vector<std::string>& args);
int RunStatus(const GlobalOptions& options, const std::vector<std::string>& args);

}  // namespace host::cli
