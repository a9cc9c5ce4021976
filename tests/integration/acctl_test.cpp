// acctl as a user runs it: the built program on the example settings and
// categories, and on inputs it must refuse with a message and a failing
// exit code.
#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <string>

#include "support/acctl_process.h"

namespace {

const std::string kExamples = std::string(AC_SOURCE_DIR) + "/host/examples/";

using test_support::Slurp;
using Outcome = test_support::AcctlOutcome;
using AcctlTest = test_support::AcctlProcessTest;

TEST_F(AcctlTest, ExampleShowsAnAllowedAndABlockedStart) {
  const Outcome o = Run("run --settings " + kExamples + "settings.json --categories " + kExamples +
                        "categories.json /usr/bin/true /bin/sh");
  ASSERT_EQ(o.exitCode, 0) << o.err;
  std::istringstream lines(o.out);
  std::string first, second, extra;
  ASSERT_TRUE(std::getline(lines, first));
  ASSERT_TRUE(std::getline(lines, second));
  EXPECT_FALSE(std::getline(lines, extra)) << "one event per start: " << extra;
  EXPECT_NE(first.find("\"type\":120"), std::string::npos) << first;
  EXPECT_NE(first.find("\"FileName\":\"true\""), std::string::npos) << first;
  EXPECT_NE(second.find("\"type\":122"), std::string::npos) << second;
  EXPECT_NE(second.find("\"Category\":\"Shells\""), std::string::npos) << second;
  EXPECT_NE(second.find("\"VendorCategory\":\"No shells\""), std::string::npos) << second;
}

TEST_F(AcctlTest, StartsFileUsersAndEventsFile) {
  // A live process (this one), so that the engine finds it in /proc.
  const std::string pid = std::to_string(::getpid());
  const std::string starts = Write("starts", "# program user pid\n/bin/sh nobody " + pid + "\n\n/usr/bin/true 0\n");
  const std::string events = dir + "/events.jsonl";
  const Outcome o = Run("--events '" + events + "' run --settings " + kExamples + "settings.json --categories " +
                        kExamples + "categories.json --starts '" + starts + "'");
  ASSERT_EQ(o.exitCode, 0) << o.err;
  EXPECT_EQ(o.out, "") << "events go to the file";
  const std::string written = Slurp(events);
  const std::size_t blocked = written.find("\"type\":122");
  const std::size_t allowed = written.find("\"type\":120");
  ASSERT_NE(blocked, std::string::npos) << written;
  ASSERT_NE(allowed, std::string::npos) << written;
  EXPECT_LT(blocked, allowed) << "events come in the order of the starts";
  EXPECT_NE(written.find("\"userName\":\"nobody\""), std::string::npos) << written;
  EXPECT_NE(written.find("\"ProcessId\":" + pid), std::string::npos) << written;
}

TEST_F(AcctlTest, BadInputFailsWithAMessage) {
  const std::string good = kExamples + "settings.json";
  const std::string categories = kExamples + "categories.json";
  const struct {
    std::string args;
    std::string message;  // a part of what stderr must say
  } cases[] = {
      {"run --settings " + Write("s1", "{\"mode\": \"DenyList\", "), "not a JSON document"},
      {"run --settings " + Write("s2", "{\"mode\": \"Sideways\", \"enforcement\": \"ApplyRules\"}"), "Sideways"},
      {"run --settings " + Write("s3", "{\"mode\": \"DenyList\", \"enforcement\": \"ApplyRules\", \"x\": 1}"),
       "unknown key \"x\""},
      {"run --settings " + Write("s4", "{\"mode\": \"DenyList\", \"enforcement\": \"ApplyRules\","
                                       " \"denyListRules\": [{\"ruleName\": \"r\", \"categoryName\": \"c\","
                                       " \"users\": [{\"userName\": \"u\", \"access\": \"Maybe\"}]}]}"),
       "denyListRules[0].users[0].access"},
      {"run --settings " + dir + "/missing.json", "cannot read"},
      {"run --settings " + good + " --categories " + Write("c1", "[{\"Name\": 1}]"), "message 321"},
      {"run --settings " + good + " --categories " + categories + " /bin/true:no-such-user-here", "unknown user"},
      {"--module " + dir + "/none.so run --settings " + good + " /bin/true", "none.so"},
  };
  for (const auto& c : cases) {
    const Outcome o = Run(c.args);
    EXPECT_NE(o.exitCode, 0) << c.args;
    EXPECT_NE(o.err.find(c.message), std::string::npos) << c.args << "\nstderr: " << o.err;
    EXPECT_EQ(o.out, "") << c.args;
  }
}

TEST_F(AcctlTest, EveryCommandAnswersHelpAndBadUsageAlike) {
  // --help: the usage on stdout, exit 0. A command line the command can't
  // take: one "acctl:" line naming the command, nothing on stdout, exit 2.
  const char* const commands[] = {"demo", "run", "categories", "enforce", "scan", "inventory", "status"};
  for (const std::string command : commands) {
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
  const struct {
    const char* args;
    const char* message;
  } usage[] = {
      {"run /bin/true", "acctl: run: --settings SETTINGS.json is required\n"},
      {"run --settings", "acctl: run: --settings needs a value\n"},
      {"scan --mask", "acctl: scan: --mask needs a value\n"},
      {"inventory --count -1", "acctl: inventory: bad --count '-1'\n"},
      {"inventory extra", "acctl: inventory: unexpected argument extra\n"},
      {"enforce --settings s.json --watch /tmp --decision-timeout 3600001",
       "acctl: enforce: bad --decision-timeout '3600001' (0 to 3600000)\n"},
      {"categories import", "acctl: categories: give import FILE or export\n"},
  };
  for (const auto& c : usage) {
    const Outcome o = Run(c.args);
    EXPECT_EQ(o.exitCode, 2) << c.args;
    EXPECT_EQ(o.err, c.message) << c.args;
  }
}

TEST_F(AcctlTest, CategoriesSurviveInTheStore) {
  const std::string db = dir + "/state.db";
  ASSERT_EQ(Run("--db '" + db + "' categories import " + kExamples + "categories.json").exitCode, 0);
  const Outcome exported = Run("--db '" + db + "' categories export");
  ASSERT_EQ(exported.exitCode, 0) << exported.err;
  EXPECT_NE(exported.out.find("(FilePath like /usr/bin/*sh)"), std::string::npos) << exported.out;
  EXPECT_NE(exported.out.find("\"Core utilities\""), std::string::npos) << exported.out;

  // A run on the same store without a categories document uses the stored ones.
  const Outcome o = Run("--db '" + db + "' run --settings " + kExamples + "settings.json /bin/sh");
  ASSERT_EQ(o.exitCode, 0) << o.err;
  EXPECT_NE(o.out.find("\"Category\":\"Shells\""), std::string::npos) << o.out;
}

}  // namespace
