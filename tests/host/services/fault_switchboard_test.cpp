// The fault switchboard: the Nth fault-point call overall or of one point
// fails once with the chosen code, calls go on being counted after it, and
// the counting allocator answers the switchboard with a null block.
#include "host/services/fault_switchboard.h"

#include <gtest/gtest.h>

#include <thread>
#include <vector>

#include "host/services/counting_allocator.h"

namespace {

using host::FaultAt;
using host::FaultPoint;

class FaultSwitchboardTest : public ::testing::Test {
 protected:
  void TearDown() override { board.Disarm(); }
  host::FaultSwitchboard& board = host::FaultSwitchboard::Instance();
};

TEST_F(FaultSwitchboardTest, TheNthCallOverallOrOfOnePointFailsOnceWithTheCode) {
  board.FailNth(3, zel::result::MediaError);
  EXPECT_EQ(FaultAt(FaultPoint::KvGetValue), 0);
  EXPECT_EQ(FaultAt(FaultPoint::FilesCreate), 0);
  EXPECT_FALSE(board.Fired());
  EXPECT_EQ(FaultAt(FaultPoint::KvSetValue), zel::result::MediaError);
  EXPECT_EQ(board.Fired(), FaultPoint::KvSetValue);
  EXPECT_EQ(FaultAt(FaultPoint::KvSetValue), 0) << "one fault a run";
  EXPECT_EQ(board.Calls(), 4u);
  EXPECT_EQ(board.CallsOf(FaultPoint::KvSetValue), 2u);
  EXPECT_EQ(host::FaultPointName(FaultPoint::KvSetValue), "kv.SetValue");

  // Rearmed for one point: the count starts afresh and other points are not counted.
  board.FailNth(2, zel::result::AccessDenied, FaultPoint::KvCommit);
  EXPECT_EQ(FaultAt(FaultPoint::KvCommit), 0);
  EXPECT_EQ(FaultAt(FaultPoint::KvSetValue), 0);
  EXPECT_EQ(FaultAt(FaultPoint::KvSetValue), 0);
  EXPECT_EQ(FaultAt(FaultPoint::KvCommit), zel::result::AccessDenied);
  EXPECT_EQ(board.Calls(), 2u);
}

TEST_F(FaultSwitchboardTest, CountingOnlyOrDisarmedNothingFails) {
  board.CountOnly();
  for (int i = 0; i < 4; ++i) EXPECT_EQ(FaultAt(FaultPoint::Alloc), 0);
  EXPECT_EQ(board.Calls(), 4u);
  EXPECT_FALSE(board.Fired());
  board.FailNth(1, zel::result::MediaError);
  EXPECT_EQ(FaultAt(FaultPoint::Alloc), zel::result::MediaError);
  board.Disarm();
  EXPECT_FALSE(board.Fired()) << "a later run does not see this run's fault";
  for (int i = 0; i < 5; ++i) EXPECT_EQ(FaultAt(FaultPoint::KvCommit), 0);
  EXPECT_FALSE(board.Fired());
}

TEST_F(FaultSwitchboardTest, ExactlyOneOfManyThreadsGetsTheFault) {
  board.FailNth(500, zel::result::MediaError);
  std::atomic<int> failed{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t)
    threads.emplace_back([&] {
      for (int i = 0; i < 250; ++i)
        if (FaultAt(FaultPoint::PublisherPublish) != 0) failed.fetch_add(1);
    });
  for (auto& t : threads) t.join();
  EXPECT_EQ(failed.load(), 1);
  EXPECT_EQ(board.Calls(), 1000u);
}

TEST_F(FaultSwitchboardTest, TheAllocatorRefusesTheNthBlock) {
  host::CountingAllocator allocator;
  board.FailNth(2, zel::result::OutOfMemory);
  void* first = allocator.Alloc(8);
  ASSERT_NE(first, nullptr);
  EXPECT_EQ(allocator.Realloc(first, 64), nullptr) << "a refused growth keeps the block";
  EXPECT_EQ(board.Fired(), FaultPoint::Alloc);
  void* third = allocator.Alloc(8);
  EXPECT_NE(third, nullptr);
  allocator.Free(first);
  allocator.Free(third);
  EXPECT_EQ(allocator.LiveBlocks(), 0);
}

}  // namespace
