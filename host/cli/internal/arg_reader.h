// host::cli::ArgReader: walks one command's arguments, each an option, an
// option with its value, or an operand. Every mistake it finds is a
// UsageError worded the same way for every command ("scan: --mask needs a
// value", "run: unknown option --x"), which main prints on one line and
// answers with exit status 2.
//
//   ArgReader r("scan", args);
//   while (r.Next()) {
//     if (r.Is("--settings")) settings = r.Value();
//     else if (r.IsHelp()) help = true;
//     else roots.push_back(r.Operand());
//   }
#pragma once

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

#include "host/cli/cli.h"

namespace host::cli {

class ArgReader {
 public:
  ArgReader(std::string command, const std::vector<std::string>& args) : m_command(std::move(command)), m_args(args) {}

  // Steps to the next argument; false past the last one.
  bool Next() {
    m_at = m_next++;
    return m_at < m_args.size();
  }
  const std::string& Arg() const { return m_args[m_at]; }
  bool Is(std::string_view option) const { return Arg() == option; }
  bool IsHelp() const { return Is("--help") || Is("-h"); }
  // The value that follows the current option.
  const std::string& Value() {
    if (m_next >= m_args.size()) Fail(Arg() + " needs a value");
    return m_args[m_next++];
  }
  // The value that follows the current option as a decimal number, at most
  // `max`.
  std::uint64_t Number(std::uint64_t max = UINT64_MAX) {
    const std::string& text = Value();
    char* end = nullptr;
    errno = 0;
    const unsigned long long value = std::strtoull(text.c_str(), &end, 10);
    if (text.empty() || text[0] == '-' || *end != '\0' || errno != 0 || value > max) {
      Fail("bad " + Arg() + " '" + text + "'" + (max == UINT64_MAX ? "" : " (0 to " + std::to_string(max) + ")"));
    }
    return value;
  }
  // The current argument as an operand: anything that looks like an option
  // ("-" alone is an operand) is one this command doesn't know.
  const std::string& Operand() const {
    if (Arg().size() > 1 && Arg()[0] == '-') Fail("unknown option " + Arg());
    return Arg();
  }
  [[noreturn]] void Fail(const std::string& what) const { throw UsageError(m_command + ": " + what); }

 private:
  const std::string m_command;
  const std::vector<std::string>& m_args;
  std::size_t m_at = 0;
  std::size_t m_next = 0;
};

}  // namespace host::cli
