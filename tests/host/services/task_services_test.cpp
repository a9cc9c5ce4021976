// The host's task layer: the task-type lock shared by every task object,
// task info by session as the registry knows it, and the stop-notice
// receiver a command line waits on.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

#include "host/services/task_registry.h"
#include "host/services/task_stop_receiver.h"
#include "host/services/task_try_mutex.h"
#include "zel/strings/conversions.h"

namespace {

using namespace std::chrono_literals;

zel::wstring_t W(const char* text) { return zel::Utf8ToWide(text); }

TEST(TaskTryMutex, OneHolderPerTypeAcrossHolders) {
  host::TaskTryMutex mutex;
  ITaskTryMutex* first = &mutex;  // two task objects share the host's one service
  ITaskTryMutex* second = &mutex;
  const zel::wstring_t scan = W("InventoryScan");

  EXPECT_EQ(first->TryLock(scan), zel::result::NoError);
  EXPECT_EQ(second->TryLock(scan), zel::result::Locked);
  EXPECT_EQ(first->TryLock(scan), zel::result::Locked);  // not recursive
  EXPECT_EQ(second->TryLock(W("OtherType")), zel::result::NoError);
  EXPECT_EQ(second->TryLock(W("inventoryscan")), zel::result::NoError);  // types compare exactly

  bool locked = false;
  EXPECT_EQ(second->IsLocked(scan, locked), zel::result::NoError);
  EXPECT_TRUE(locked);
  // Whoever took it, any holder may give it back: the worker does.
  EXPECT_EQ(second->Unlock(scan), zel::result::NoError);
  EXPECT_EQ(first->Unlock(scan), zel::result::NotLocked);
  EXPECT_EQ(second->IsLocked(scan, locked), zel::result::NoError);
  EXPECT_FALSE(locked);
  EXPECT_EQ(second->TryLock(scan), zel::result::NoError);
  EXPECT_EQ(mutex.HeldTypes(), 3u);
}

TEST(TaskTryMutex, ConcurrentTakersGetTheTypeOnceAtATime) {
  host::TaskTryMutex mutex;
  const zel::wstring_t type = W("InventoryScan");
  std::atomic<int> inside{0}, maxInside{0}, wins{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < 2000; ++i) {
        if (mutex.TryLock(type) != zel::result::NoError) continue;
        const int now = ++inside;
        int seen = maxInside.load();
        while (now > seen && !maxInside.compare_exchange_weak(seen, now)) {
        }
        ++wins;
        --inside;
        ASSERT_EQ(mutex.Unlock(type), zel::result::NoError);
      }
    });
  }
  for (std::thread& t : threads) t.join();
  EXPECT_EQ(maxInside.load(), 1);
  EXPECT_GT(wins.load(), 0);
  EXPECT_EQ(mutex.HeldTypes(), 0u);
}

TEST(TaskRegistry, TaskInfoBySessionAndId) {
  host::TaskRegistry registry;
  TaskDescription scan;
  scan.taskId = 42;
  scan.taskName = W("Inventory scan");
  scan.taskType = W("InventoryScan");
  registry.Add(scan, "vorn/scan");
  TaskDescription other;
  other.taskId = 7;
  other.taskName = W("Other");
  registry.Add(other);

  ITaskInfoProvider* provider = &registry;
  TaskInfo info;
  info.taskName = W("untouched");
  // No session yet; session 0 is nobody's.
  EXPECT_EQ(provider->GetTaskInfoByTaskSessionId(9, info), zel::result::NotFound);
  EXPECT_EQ(provider->GetTaskInfoByTaskSessionId(0, info), zel::result::NotFound);
  EXPECT_EQ(info.taskName.view(), u"untouched");

  EXPECT_TRUE(registry.SetSession(42, 9));
  EXPECT_FALSE(registry.SetSession(1000, 9));
  ASSERT_EQ(provider->GetTaskInfoByTaskSessionId(9, info), zel::result::NoError);
  EXPECT_EQ(info.taskId, 42u);
  EXPECT_EQ(info.sessionId, 9u);
  EXPECT_EQ(info.taskName.view(), u"Inventory scan");
  EXPECT_EQ(info.taskType.view(), u"InventoryScan");
  EXPECT_EQ(info.cgroupName.view(), "vorn/scan");

  ASSERT_EQ(provider->GetTaskInfoByTaskId(7, info), zel::result::NoError);
  EXPECT_EQ(info.taskName.view(), u"Other");
  EXPECT_TRUE(info.cgroupName.empty());

  // A replaced task keeps nothing of the old entry; a session that ended finds nothing.
  registry.Add(scan);
  EXPECT_EQ(provider->GetTaskInfoByTaskSessionId(9, info), zel::result::NotFound);
  ASSERT_EQ(provider->GetTaskInfoByTaskId(42, info), zel::result::NoError);
  EXPECT_TRUE(info.cgroupName.empty());
}

TEST(TaskStopReceiver, WakesTheWaiterAndKeepsNoticesInOrder) {
  host::TaskStopReceiver receiver;
  EXPECT_FALSE(receiver.WaitFor(1, 20ms).has_value());  // nothing came: a time-out, not a hang

  std::thread worker([&] {
    std::this_thread::sleep_for(20ms);
    host::TaskStopInfo first;
    first.result = zel::result::UnspecifiedError;
    first.message = W("Task stopped");
    app_core::task_manager::task::ITaskStopEvents* sink = &receiver;
    sink->OnTaskStopped(first);
    host::TaskStopInfo second;
    sink->OnTaskStopped(second);
  });
  const auto first = receiver.WaitFor(1, 10s);
  ASSERT_TRUE(first.has_value());
  EXPECT_EQ(first->result, zel::result::UnspecifiedError);
  EXPECT_EQ(first->message.view(), u"Task stopped");
  const auto second = receiver.WaitFor(2, 10s);
  worker.join();
  ASSERT_TRUE(second.has_value());
  EXPECT_EQ(second->result, 0);
  EXPECT_EQ(receiver.Count(), 2u);
  EXPECT_FALSE(receiver.WaitFor(3, 1ms).has_value());
}

}  // namespace
