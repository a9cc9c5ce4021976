// acctl scan and acctl inventory as a user runs them, in a scratch store:
// the golden-image workflow end to end (scan with GoldenImage add, then an
// allow list on that category), the inventory views, the errors of the
// command line, a stop by SIGINT, pause and resume by signal, the
// task-type lock across two acctl processes, and the hash cache that scans
// and runs share through the store.
#include <gtest/gtest.h>
#include <signal.h>
#include <sqlite3.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "support/acctl_process.h"

namespace {

namespace fs = std::filesystem;
const std::string kExamples = std::string(AC_SOURCE_DIR) + "/host/examples/";

using test_support::Slurp;
using Outcome = test_support::AcctlOutcome;
constexpr auto Count = test_support::CountOf;

class AcctlScanTest : public test_support::AcctlProcessTest {
 protected:
  void SetUp() override {
    AcctlProcessTest::SetUp();
    db = dir + "/acctl.db";
    globalArgs = "--db '" + db + "'";
    fs::create_directories(dir + "/image/sub");
    fs::create_directories(dir + "/outside");
    fs::copy_file("/usr/bin/true", dir + "/image/true");
    std::ofstream(dir + "/image/sub/hello.sh") << "#!/bin/sh\necho hello\n";
    fs::permissions(dir + "/image/sub/hello.sh", fs::perms::owner_exec, fs::perm_options::add);
    fs::copy_file("/usr/bin/false", dir + "/outside/false");
  }

  // Big enough that a scan takes most of a second on a fast machine, so
  // that a signal sent once the first progress line is out finds it still
  // walking.
  std::string BigTree() {
    const int files = 40000;
    const std::string root = dir + "/big";
    for (int d = 0; d < files / 500 + 1; ++d) fs::create_directories(root + "/d" + std::to_string(d));
    for (int i = 0; i < files; ++i) {
      std::ofstream(root + "/d" + std::to_string(i / 500) + "/f" + std::to_string(i) + ".sh")
          << "#!/bin/sh\necho " << i << "\n";
    }
    return root;
  }

  std::string db;
};

TEST_F(AcctlScanTest, GoldenImageWorkflowAndTheInventoryViews) {
  const Outcome scan = Run("scan '" + dir + "/image' --golden-image add --json");
  ASSERT_EQ(scan.exitCode, 0) << scan.err;
  EXPECT_NE(scan.out.find("\"inventoried\":2"), std::string::npos) << scan.out;

  const Outcome list = Run("inventory --json");
  EXPECT_EQ(Count(list.out, "\"filePath\""), 2u) << list.out << list.err;
  EXPECT_NE(list.out.find(dir + "/image/true"), std::string::npos);
  EXPECT_NE(list.out.find(dir + "/image/sub/hello.sh"), std::string::npos);
  EXPECT_EQ(Count(list.out, "eac00500-0000-0000-0000-000000000000"), 2u) << list.out;
  const Outcome table = Run("inventory");
  EXPECT_EQ(table.out.rfind("ID", 0), 0u) << table.out << table.err;
  EXPECT_EQ(Count(table.out, "\n"), 3u) << table.out;
  const Outcome page = Run("inventory --json --from 1 --count 5");
  EXPECT_EQ(Count(page.out, "\"filePath\""), 1u) << page.out << page.err;
  EXPECT_EQ(Count(Run("inventory --json --from 2").out, "\"filePath\""), 0u);
  // The id of one record, then that record with its category names.
  const std::size_t at = page.out.find("\"id\" : ");
  ASSERT_NE(at, std::string::npos) << page.out;
  const std::string id = page.out.substr(at + 7, page.out.find_first_not_of("0123456789", at + 7) - (at + 7));
  const Outcome one = Run("inventory --json --id " + id);
  ASSERT_EQ(one.exitCode, 0) << one.err;
  EXPECT_NE(one.out.find("\"categoryNames\""), std::string::npos) << one.out;
  EXPECT_NE(one.out.find("\"GoldenImage\""), std::string::npos) << one.out;

  // An allow list on the image's category: its program runs, one from outside does not.
  const Outcome run = Run("run --settings " + kExamples + "golden-image-settings.json '" + dir + "/image/true' '" +
                          dir + "/outside/false'");
  ASSERT_EQ(run.exitCode, 0) << run.err;
  const std::size_t allowed = run.out.find("\"type\":120,"), blocked = run.out.find("\"type\":122,");
  ASSERT_LT(allowed, blocked) << run.out;
  EXPECT_LT(run.out.find("\"FileName\":\"true\""), blocked) << run.out;
  EXPECT_GT(run.out.find("\"FileName\":\"false\""), blocked) << run.out;

  // Remove: the next scan drops the category, and the image's program is no
  // longer allowed either.
  ASSERT_EQ(Run("scan '" + dir + "/image' --golden-image remove").exitCode, 0);
  EXPECT_EQ(Count(Run("inventory --json").out, "eac00500"), 0u);
  const Outcome again = Run("run --settings " + kExamples + "golden-image-settings.json '" + dir + "/image/true'");
  ASSERT_EQ(again.exitCode, 0) << again.err;
  EXPECT_NE(again.out.find("\"type\":122"), std::string::npos) << again.out;
}

TEST_F(AcctlScanTest, SettingsDocumentChoosesScopesMasksAndExclusions) {
  fs::create_directories(dir + "/image/skipped");
  std::ofstream(dir + "/image/skipped/other.sh") << "#!/bin/sh\n";
  std::ofstream(dir + "/scan.json") << "{\"goldenImageAction\": \"Add\", \"scanScopes\": [{\"path\": \"" + dir +
                                           "/image\", \"masks\": [\"*.sh\"]}, {\"path\": \"/nonexistent\", "
                                           "\"enabled\": false}], \"secondaryScopes\": [{\"path\": \"" + dir +
                                           "/image/skipped\"}]}";
  const Outcome scan = Run("scan --settings '" + dir + "/scan.json' --json");
  ASSERT_EQ(scan.exitCode, 0) << scan.err;
  const Outcome list = Run("inventory --json");
  EXPECT_EQ(Count(list.out, "\"filePath\""), 1u) << list.out;
  EXPECT_NE(list.out.find(dir + "/image/sub/hello.sh"), std::string::npos) << list.out;
  EXPECT_EQ(Count(list.out, "eac00500"), 1u) << list.out;

  // Roots on the command line replace the document's scopes; --mask narrows them.
  const Outcome cli = Run("scan --settings '" + dir + "/scan.json' '" + dir + "/image' --mask 'tr*' --json");
  ASSERT_EQ(cli.exitCode, 0) << cli.err;
  const Outcome after = Run("inventory --json");
  EXPECT_EQ(Count(after.out, "\"filePath\""), 1u) << after.out;
  EXPECT_NE(after.out.find(dir + "/image/true"), std::string::npos) << after.out;
}

TEST_F(AcctlScanTest, SignalsPauseResumeAndStopTheScanAndTheTaskTypeLockRefusesASecond) {
  const std::string root = BigTree();
  const auto first = Spawn("scan '" + root + "' --interval 0.05", "first");
  ASSERT_TRUE(first->WaitForErr("files seen")) << first->Err();
  first->Signal(SIGUSR1);  // hold it running while the second tries
  ASSERT_TRUE(first->WaitForErr("paused: ")) << first->Err();
  const Outcome second = Run("scan '" + dir + "/image'");
  EXPECT_EQ(second.exitCode, 1);
  EXPECT_EQ(Count(second.err, "acctl:"), 1u) << second.err;
  EXPECT_NE(second.err.find("another inventory scan is running"), std::string::npos) << second.err;
  first->Signal(SIGUSR2);
  ASSERT_TRUE(first->WaitForErr("resumed")) << first->Err();
  EXPECT_EQ(first->Exit(), 0) << first->Err();
  EXPECT_NE(first->Out().find("40000 inventoried"), std::string::npos) << first->Out();

  // Stopped by SIGINT, a scan on a store of its own leaves it empty.
  globalArgs = "--db '" + dir + "/stopped.db'";
  const auto stopped = Spawn("scan '" + root + "' --interval 0.05", "stopped");
  ASSERT_TRUE(stopped->WaitForErr("files seen")) << stopped->Err();
  EXPECT_EQ(stopped->Stop(SIGINT), 0) << stopped->Err();
  EXPECT_NE(stopped->Out().find("interrupted"), std::string::npos) << stopped->Out();
  const Outcome list = Run("inventory --json");
  EXPECT_EQ(list.exitCode, 0) << list.err;
  EXPECT_EQ(Count(list.out, "\"filePath\""), 0u) << list.out;
}

// Files younger than the engine's racy window are hashed but not remembered.
void Settle() { std::this_thread::sleep_for(std::chrono::milliseconds(100)); }

TEST_F(AcctlScanTest, ASecondScanHashesNothingRehashHashesAllAndAnUnusableCacheOnlyWarns) {
  // Two copies of one program: two records, each under its own path.
  fs::copy_file("/usr/bin/true", dir + "/image/sub/true-copy");
  Settle();
  const std::string scan = "scan '" + dir + "/image' --json";
  struct Step {
    const char* what;
    std::string args;
    const char* counts;
  };
  const Step steps[] = {
      {"first", scan, "\"filesHashed\":3,\"filesSeen\":3,\"hashesFromCache\":0"},
      {"second", scan, "\"filesHashed\":0,\"filesSeen\":3,\"hashesFromCache\":3"},
      {"rehash", scan + " --rehash", "\"filesHashed\":3,\"filesSeen\":3,\"hashesFromCache\":0"},
  };
  for (const Step& step : steps) {
    const Outcome o = Run(step.args);
    ASSERT_EQ(o.exitCode, 0) << step.what << ": " << o.err;
    EXPECT_NE(o.out.find(step.counts), std::string::npos) << step.what << ": " << o.out;
    EXPECT_EQ(Count(o.err, "warning"), 0u) << o.err;
  }
  const Outcome list = Run("inventory --json");
  EXPECT_EQ(Count(list.out, "\"filePath\""), 3u) << list.out;
  EXPECT_EQ(Count(list.out, dir + "/image/sub/true-copy\""), 1u) << list.out;
  EXPECT_EQ(Count(list.out, dir + "/image/true\""), 1u) << list.out;

  // A cache table of another shape: the scan and the inventory go on.
  sqlite3* handle = nullptr;
  ASSERT_EQ(sqlite3_open(db.c_str(), &handle), SQLITE_OK);
  EXPECT_EQ(sqlite3_exec(handle, "DROP TABLE hash_cache; CREATE TABLE hash_cache(x);", nullptr, nullptr, nullptr),
            SQLITE_OK);
  sqlite3_close(handle);
  const Outcome spoilt = Run(scan);
  ASSERT_EQ(spoilt.exitCode, 0) << spoilt.err;
  EXPECT_NE(spoilt.out.find("\"filesHashed\":3"), std::string::npos) << spoilt.out;
  EXPECT_NE(spoilt.out.find("\"inventoried\":3"), std::string::npos) << spoilt.out;
  EXPECT_EQ(Count(spoilt.err, "acctl: warning: loading the hash cache in"), 1u) << spoilt.err;
  EXPECT_EQ(Count(spoilt.err, "warning"), 1u) << spoilt.err;
}

}  // namespace
