// The smaller pieces of live enforcement: the publishing queue that never
// blocks a decision, the counters' two forms, and what is read of a
// process and of an open descriptor.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "engine_test_support.h"
#include "host/engine/bounded_queue.h"
#include "host/engine/enforce_counters.h"
#include "host/engine/fanotify_listener.h"

namespace {

namespace fs = std::filesystem;
using host::engine::BoundedQueue;

TEST(BoundedQueueTest, FullOrClosedQueueDropsAndCountsWithoutWaiting) {
  BoundedQueue<int> queue(3);
  for (int i = 0; i < 5; ++i) EXPECT_EQ(queue.Push(i), i < 3);
  EXPECT_EQ(queue.Dropped(), 2u);
  EXPECT_EQ(queue.Size(), 3u);
  EXPECT_EQ(queue.Pop(), 0);
  EXPECT_TRUE(queue.Push(9)) << "room again after a pop";
  // Closed: what is left is handed out, then the end; nothing more is taken.
  queue.Close();
  EXPECT_FALSE(queue.Push(10));
  EXPECT_EQ(queue.Dropped(), 3u);
  for (int want : {1, 2, 9}) EXPECT_EQ(queue.Pop(), want);
  EXPECT_EQ(queue.Pop(), std::nullopt);
}

TEST(BoundedQueueTest, BatchesComeWholeInOrderAndLingerEndsAtHalfFullOrClose) {
  using namespace std::chrono_literals;
  BoundedQueue<int> queue(8);
  std::vector<int> got;
  for (int i = 0; i < 3; ++i) queue.Push(i);
  ASSERT_TRUE(queue.PopBatch(got, 0ms));
  EXPECT_EQ(got, (std::vector<int>{0, 1, 2}));

  // A consumer lingering for more is woken by the item that makes the
  // queue half full, long before its linger ends.
  got.clear();
  std::thread consumer([&] { queue.PopBatch(got, 1h); });
  for (int i = 10; i < 14; ++i) queue.Push(i);
  consumer.join();
  EXPECT_EQ(got, (std::vector<int>{10, 11, 12, 13}));

  // ... and by Close, which then hands out nothing more.
  got.clear();
  queue.Push(20);
  std::thread closing([&] { EXPECT_TRUE(queue.PopBatch(got, 1h)); });
  std::this_thread::sleep_for(10ms);
  queue.Close();
  closing.join();
  EXPECT_EQ(got, std::vector<int>{20});
  EXPECT_FALSE(queue.PopBatch(got, 1h));
}

TEST(BoundedQueueTest, PushWithoutWakeSaysWhenTheWaitingConsumerMustBeWoken) {
  BoundedQueue<int> queue(4);
  bool wake = true;
  EXPECT_TRUE(queue.PushWithoutWake(1, &wake));
  EXPECT_FALSE(wake) << "nobody waits";
  EXPECT_EQ(queue.Pop(), 1);
  // A consumer that waits must be woken: without the Wake it would wait on.
  std::optional<int> got;
  std::thread consumer([&] { got = queue.Pop(); });
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  ASSERT_TRUE(queue.PushWithoutWake(2, &wake));
  if (wake) queue.Wake();
  consumer.join();
  EXPECT_EQ(got, 2);
}

TEST(EnforceCountersTest, TextAndJsonNameEveryCounterInOrder) {
  const host::engine::EnforceCountersSnapshot c{1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12};
  EXPECT_EQ(host::engine::FormatCountersText(c),
            "decided 1, allowed 2, blocked 3, test-mode 4, timed out 5, undecided 6, events dropped 7, "
            "hash-cache hits 8, starts 9, published 10, publish failed 11, memfd exec 12");
  EXPECT_EQ(host::engine::FormatCountersJson(c),
            "{\"decided\":1,\"allowed\":2,\"blocked\":3,\"testMode\":4,\"timedOut\":5,\"undecided\":6,"
            "\"eventsDropped\":7,\"hashCacheHits\":8,\"starts\":9,\"published\":10,\"publishFailed\":11,"
            "\"memfdExec\":12}");
}

TEST(ProcFilesTest, IdentityIsTheRealUidAndTheParentReadAlikeByPathAndByTheProbe) {
  const engine_test::ScratchDir root;
  const struct {
    const char* what;
    const char* status;  // nullptr: no such process
    int uid, ppid;       // -1: no identity
  } cases[] = {
      {"real uid and parent", "Name:\tsh\nPPid:\t3\nTracerPid:\t0\nUid:\t1000\t0\t0\t0\nGid:\t1000\t1000\t1000\t1000\n",
       1000, 3},
      {"no such process", nullptr, -1, -1},
      {"no Uid line", "Name:\tsh\nPPid:\t1\n", -1, -1},
      {"a Uid that is not a number", "Name:\tsh\nUid:\tx\t0\nPPid:\t1\n", -1, -1},
  };
  // Over a copy of /proc the probe reads the files: a pidfd would describe
  // the real process of that pid, not the copy's.
  const host::engine::StartProbe probe(root.Path());
  EXPECT_FALSE(probe.UsesPidfd());
  int pid = 7;
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    if (++pid; c.status != nullptr) root.Write(std::to_string(pid) + "/status", c.status);
    for (const auto& identity : {host::engine::ReadProcessIdentity(root.Path(), static_cast<std::uint32_t>(pid)),
                                 probe.Identity(static_cast<std::uint32_t>(pid))}) {
      ASSERT_EQ(identity.has_value(), c.uid >= 0);
      if (identity) {
        EXPECT_EQ(identity->uid, static_cast<std::uint32_t>(c.uid));
        EXPECT_EQ(identity->ppid, static_cast<std::uint32_t>(c.ppid));
      }
    }
  }
}

TEST(ProcFilesTest, OwnProcessIsTheSameThroughProcAndThroughItsPidfd) {
  const auto self = static_cast<std::uint32_t>(::getpid());
  const host::engine::StartProbe probe("/proc");
  bool unsupported = true;
  const auto queried = host::engine::QueryProcessIdentity(self, &unsupported);
  // The probe uses the pidfd exactly when this kernel can answer through it.
  EXPECT_EQ(probe.UsesPidfd(), queried.has_value());
  EXPECT_EQ(unsupported, !queried.has_value());
  for (const auto& identity : {host::engine::ReadProcessIdentity("/proc", self), probe.Identity(self),
                               queried ? queried : probe.Identity(self)}) {
    ASSERT_TRUE(identity);
    EXPECT_EQ(identity->uid, ::getuid());
    EXPECT_EQ(identity->ppid, static_cast<std::uint32_t>(::getppid()));
  }

  // A process that is gone is no identity either way, and no sign of an
  // old kernel.
  const pid_t child = ::fork();
  if (child == 0) ::_exit(0);
  ASSERT_GT(child, 0);
  ::waitpid(child, nullptr, 0);
  EXPECT_FALSE(probe.Identity(static_cast<std::uint32_t>(child)));
  EXPECT_FALSE(host::engine::QueryProcessIdentity(static_cast<std::uint32_t>(child), &unsupported));
  EXPECT_FALSE(unsupported);
}

TEST(ProcFilesTest, DescriptorPathLosesTheDeletedMarkOnlyWhenTheFileIsGone) {
  const engine_test::ScratchDir root;
  const fs::path file = root.Write("prog", "x"), oddName = root.Write("prog (deleted)", "y");
  const int fd = ::open(file.c_str(), O_RDONLY | O_CLOEXEC);
  const int oddFd = ::open(oddName.c_str(), O_RDONLY | O_CLOEXEC);
  ASSERT_GE(fd, 0);
  ASSERT_GE(oddFd, 0);
  // Both readers: by path from the root, and relative to the probe's kept directory.
  const host::engine::StartProbe probe("/proc");
  const std::function<std::string(int, bool*)> readers[] = {
      [](int d, bool* deleted) { return host::engine::PathOfDescriptor("/proc", d, deleted); },
      [&probe](int d, bool* deleted) { return probe.PathOf(d, deleted); },
  };
  for (std::size_t i = 0; i < std::size(readers); ++i) {
    SCOPED_TRACE(i == 0 ? "PathOfDescriptor" : "StartProbe::PathOf");
    bool deleted = true;
    EXPECT_EQ(readers[i](fd, &deleted), file.string());
    EXPECT_FALSE(deleted);
    EXPECT_EQ(readers[i](oddFd, &deleted), oddName.string());
    EXPECT_FALSE(deleted) << "a name that merely ends in the mark";
    EXPECT_EQ(readers[i](100000, &deleted), "") << "no such descriptor";
  }
  fs::remove(file);
  for (const auto& read : readers) {
    bool deleted = false;
    EXPECT_EQ(read(fd, &deleted), file.string());
    EXPECT_TRUE(deleted);
  }
  ::close(fd);
  ::close(oddFd);
}

TEST(LoaderProgramTest, TheFirstOperandAfterTheLoadersOptions) {
  using namespace std::string_view_literals;
  const struct {
    std::string_view commandLine;
    const char* program;
  } cases[] = {
      {"ld.so\0./prog\0arg"sv, "./prog"},
      {"ld.so\0--argv0\0name\0--library-path\0/l\0/bin/p\0--x"sv, "/bin/p"},
      {"ld.so\0--inhibit-cache\0p\0"sv, "p"},  // an option without a value; a trailing NUL
      {"ld.so"sv, ""},
      {"ld.so\0--help"sv, ""},
      {"ld.so\0--preload\0libx.so"sv, ""},  // the value is not the program
  };
  for (const auto& c : cases) EXPECT_EQ(host::engine::LoaderProgram(c.commandLine), c.program) << c.commandLine;
}

}  // namespace
