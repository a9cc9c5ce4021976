// acctl as a user runs it: the built program on the example settings and
// categories, and on inputs it must refuse with a message and a failing
// exit code.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>

#include "support/acctl_process.h"

namespace {

const std::string kExamples = std::string(AC_SOURCE_DIR) + "/host/examples/";

using test_support::Slurp;
using Outcome = test_support::AcctlOutcome;
using AcctlTest = test_support::AcctlProcessTest;

TEST_F(AcctlTest, ExampleDecidesTheStartsOfTheFileThenOfTheCommandLineOneEventEach) {
  // A live process (this one), so that the engine finds it in /proc.
  const std::string pid = std::to_string(::getpid());
  const std::string starts = Write("starts", "# program user pid\n/bin/sh nobody " + pid + "\n\n/usr/bin/true 0\n");
  const std::string events = dir + "/events.jsonl";
  const Outcome o = Run("--events '" + events + "' run --settings " + kExamples + "settings.json --categories " +
                        kExamples + "categories.json --starts '" + starts + "' /bin/sh");
  ASSERT_EQ(o.exitCode, 0) << o.err;
  EXPECT_EQ(o.out, "") << "events go to the file";
  const std::string written = Slurp(events);
  EXPECT_EQ(test_support::CountOf(written, "\n"), 3u) << written;
  const std::size_t allowed = written.find("\"type\":120");
  ASSERT_NE(allowed, std::string::npos) << written;
  EXPECT_LT(written.find("\"type\":122"), allowed) << "events come in the order of the starts: " << written;
  EXPECT_NE(written.find("\"type\":122", allowed), std::string::npos) << written;
  EXPECT_NE(written.find("\"userName\":\"nobody\""), std::string::npos) << written;
  EXPECT_NE(written.find("\"ProcessId\":" + pid), std::string::npos) << written;
  EXPECT_NE(written.find("\"FileName\":\"true\""), std::string::npos) << written;
  EXPECT_NE(written.find("\"Category\":\"Shells\""), std::string::npos) << written;
  EXPECT_NE(written.find("\"VendorCategory\":\"No shells\""), std::string::npos) << written;
}

TEST_F(AcctlTest, EveryCommandAnswersHelpAndBadUsageAlike) {
  // --help: the usage on stdout, exit 0. A command line the command can't
  // take: one "acctl:" line naming the command, nothing on stdout, exit 2.
  for (const std::string command : {"demo", "run", "categories", "enforce", "scan", "inventory", "status"}) {
    const Outcome help = Run(command + " --help");
    EXPECT_EQ(help.exitCode, 0) << command << ": " << help.err;
    EXPECT_EQ(help.out.rfind("usage: acctl", 0), 0u) << command << ": " << help.out;
    EXPECT_EQ(help.err, "") << command;

    const Outcome bad = Run(command + " --frobnicate");
    EXPECT_EQ(bad.exitCode, 2) << command << ": " << bad.err;
    EXPECT_EQ(bad.out, "") << command;
    EXPECT_EQ(bad.err.rfind("acctl: ", 0), 0u) << command << ": " << bad.err;
    EXPECT_EQ(std::count(bad.err.begin(), bad.err.end(), '\n'), 1) << command << ": " << bad.err;
  }
}

TEST_F(AcctlTest, BadInputFailsWithOneLine) {
  // Usage faults exit 2 (some with the whole line given); faults of the
  // input exit 1 with a line that says at least this much.
  const std::string good = kExamples + "settings.json";
  const std::string categories = kExamples + "categories.json";
  const std::string enforce = "enforce --settings " + good + " --watch " + dir;
  const struct {
    std::string args;
    int exitCode;
    std::string message;
    uid_t asUser = 0;
  } cases[] = {
      {"run /bin/true", 2, "acctl: run: --settings SETTINGS.json is required\n"},
      {"run --settings", 2, "acctl: run: --settings needs a value\n"},
      {"scan --mask", 2, "acctl: scan: --mask needs a value\n"},
      {"inventory --count -1", 2, "acctl: inventory: bad --count '-1'\n"},
      {"inventory extra", 2, "acctl: inventory: unexpected argument extra\n"},
      {"enforce --settings s.json --watch /tmp --decision-timeout 3600001", 2,
       "acctl: enforce: bad --decision-timeout '3600001' (0 to 3600000)\n"},
      {"categories import", 2, "acctl: categories: give import FILE or export\n"},
      {"run --settings " + Write("s1", "{\"mode\": \"DenyList\", "), 1, "not a JSON document"},
      {"run --settings " + Write("s2", "{\"mode\": \"Sideways\", \"enforcement\": \"ApplyRules\"}"), 1, "Sideways"},
      {"run --settings " + Write("s4", "{\"mode\": \"DenyList\", \"enforcement\": \"ApplyRules\","
                                       " \"denyListRules\": [{\"ruleName\": \"r\", \"categoryName\": \"c\","
                                       " \"users\": [{\"userName\": \"u\", \"access\": \"Maybe\"}]}]}"),
       1, "denyListRules[0].users[0].access"},
      {"run --settings " + dir + "/missing.json", 1, "cannot read"},
      {"run --settings " + good + " --categories " + Write("c1", "[{\"Name\": 1}]"), 1, "message 321"},
      {"run --settings " + good + " --categories " + categories + " /bin/true:no-such-user-here", 1, "unknown user"},
      {"--module " + dir + "/none.so run --settings " + good + " /bin/true", 1, "none.so"},
      {"scan " + dir + "/missing", 2, dir + "/missing: No such file or directory"},
      {"scan " + Write("file", ""), 2, dir + "/file: not a directory"},
      {"scan --golden-image maybe", 2, "--golden-image takes add, remove or none"},
      {"scan --settings " + Write("bad.json", R"({"scanScopes": [{"path": "/usr/bin", "colour": 1}]})"), 1,
       "scanScopes[0]: unknown key \"colour\""},
      {"scan --settings " + Write("off.json", R"({"scanScopes": [{"path": "/usr/bin", "enabled": false}]})"), 2,
       "no enabled scope"},
      {"inventory --from x", 2, "bad --from 'x'"},
      {"--db " + dir + "/empty.db inventory --id 1", 1, "acctl: inventory: no application with id 1\n"},
      {"enforce --settings " + good + " --watch " + dir + "/missing", 2, dir + "/missing"},
      {"enforce --settings " + good, 2, "--watch DIR or --mount PATH"},
      {"enforce --watch " + dir, 2, "--settings"},
      {enforce + " --on-timeout maybe", 2, "maybe"},
      {enforce + " --decision-timeout 0", 2, "--decision-timeout"},
      {"enforce --settings " + dir + "/none.json --watch " + dir, 1, "none.json"},
      {enforce, 1, "acctl: enforce needs root: fanotify permission events need CAP_SYS_ADMIN\n", 65534},
  };
  for (const auto& c : cases) {
    if (c.asUser != 0 && ::geteuid() != 0) continue;  // only root can become another user
    const Outcome o = Run(c.args, c.asUser);
    EXPECT_EQ(o.exitCode, c.exitCode) << c.args;
    EXPECT_NE(o.err.find(c.message), std::string::npos) << c.args << "\nstderr: " << o.err;
    EXPECT_EQ(o.err.rfind("acctl: ", 0), 0u) << c.args << "\nstderr: " << o.err;
    EXPECT_EQ(std::count(o.err.begin(), o.err.end(), '\n'), 1) << "one line: " << c.args << "\nstderr: " << o.err;
    EXPECT_EQ(o.out, "") << c.args;
  }
}

}  // namespace
