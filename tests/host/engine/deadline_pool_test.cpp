// The decision pool's promise: every job answered exactly once, by its
// decision when it comes in time, by the deadline otherwise, and at Stop.
#include "host/engine/deadline_pool.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

namespace {

using namespace std::chrono_literals;
using host::engine::DeadlineJob;
using host::engine::DeadlinePool;

// A job whose decision may wait until it is released.
class Job final : public DeadlineJob {
 public:
  explicit Job(bool waitForRelease = false) : m_waitForRelease(waitForRelease) {}

  void Decide() override {
    decided.fetch_add(1);
    if (m_waitForRelease) {
      std::unique_lock lock(m_mutex);
      m_cv.wait(lock, [this] { return m_released; });
    }
  }
  void Answer(bool timedOut) override {
    std::lock_guard lock(m_mutex);
    answers.push_back(timedOut);
    m_cv.notify_all();
  }
  void Release() {
    std::lock_guard lock(m_mutex);
    m_released = true;
    m_cv.notify_all();
  }
  // Waits (bounded) for the answer; the answers so far.
  std::vector<bool> WaitAnswer(std::chrono::milliseconds limit = 5s) {
    std::unique_lock lock(m_mutex);
    m_cv.wait_for(lock, limit, [this] { return !answers.empty(); });
    return answers;
  }
  std::vector<bool> Answers() { return WaitAnswer(0ms); }

  std::atomic<int> decided{0};

 private:
  const bool m_waitForRelease;
  std::mutex m_mutex;
  std::condition_variable m_cv;
  bool m_released = false;
  std::vector<bool> answers;
};

TEST(DeadlinePoolTest, JobsDecidedInTimeAreAnsweredByTheirDecisionOnce) {
  DeadlinePool pool(2, 5s);
  std::vector<std::shared_ptr<Job>> jobs;
  for (int i = 0; i < 50; ++i) {
    jobs.push_back(std::make_shared<Job>());
    pool.Submit(jobs.back());
  }
  for (auto& job : jobs) EXPECT_EQ(job->WaitAnswer(), std::vector<bool>{false});
  pool.Stop();
  for (auto& job : jobs) {
    EXPECT_EQ(job->Answers(), std::vector<bool>{false}) << "answered again at Stop";
    EXPECT_EQ(job->decided.load(), 1);
  }
  const auto stats = pool.Stats();
  EXPECT_EQ(stats.submitted, 50u);
  EXPECT_EQ(stats.inTime, 50u);
  EXPECT_EQ(stats.timedOut, 0u);
  EXPECT_EQ(pool.Pending(), 0u);
}

TEST(DeadlinePoolTest, IdleWatchdogIsNotWokenYetAnswersAStuckJobAtItsDeadline) {
  // Nobody wakes the watchdog for a new job; it must find the job itself,
  // whether the pool was idle for less or for more than one deadline.
  DeadlinePool pool(1, 50ms);
  for (const auto idle : {10ms, 120ms}) {
    std::this_thread::sleep_for(idle);
    auto stuck = std::make_shared<Job>(true);
    const auto begin = std::chrono::steady_clock::now();
    pool.RunHere(std::make_shared<Job>());  // one answered at once first: the watchdog has nothing left
    pool.Submit(stuck);
    EXPECT_EQ(stuck->WaitAnswer(3s), std::vector<bool>{true}) << "idle " << idle.count() << " ms";
    EXPECT_GE(std::chrono::steady_clock::now() - begin, 50ms);
    stuck->Release();
  }
  pool.Stop();
  EXPECT_EQ(pool.Stats().timedOut, 2u);
}

TEST(DeadlinePoolTest, StuckDecisionsAndTheJobsBehindThemAreAnsweredAtTheDeadlineOnce) {
  DeadlinePool pool(2, 60ms);
  auto stuck1 = std::make_shared<Job>(true), stuck2 = std::make_shared<Job>(true);
  const auto begin = std::chrono::steady_clock::now();
  pool.Submit(stuck1);
  pool.Submit(stuck2);
  std::vector<std::shared_ptr<Job>> waiting;
  for (int i = 0; i < 5; ++i) {
    waiting.push_back(std::make_shared<Job>());
    pool.Submit(waiting.back());
  }
  EXPECT_EQ(stuck1->WaitAnswer(), std::vector<bool>{true});
  EXPECT_GE(std::chrono::steady_clock::now() - begin, 60ms);
  for (auto& job : waiting) EXPECT_EQ(job->WaitAnswer(), std::vector<bool>{true});
  stuck1->Release();
  stuck2->Release();
  pool.Stop();
  for (auto& job : waiting) EXPECT_EQ(job->decided.load(), 0) << "decided after its deadline was answered";
  for (auto& job : {stuck1, stuck2}) EXPECT_EQ(job->Answers(), std::vector<bool>{true}) << "a late decision answered again";
  EXPECT_EQ(pool.Stats().late, 2u);
  EXPECT_EQ(pool.Stats().timedOut, 7u);
}

TEST(DeadlinePoolTest, StopAnswersEveryPendingJobBeforeItWaitsForTheWorkers) {
  auto pool = std::make_unique<DeadlinePool>(1, 1h);
  auto running = std::make_shared<Job>(true), here = std::make_shared<Job>(true);
  auto queued = std::make_shared<Job>();
  pool->Submit(running);
  pool->Submit(queued);
  std::thread caller([&] { pool->RunHere(here); });
  while (running->decided.load() == 0 || here->decided.load() == 0) std::this_thread::yield();
  std::thread stopper([&] { pool->Stop(); });
  // All are answered while the decisions still hang, the worker's and the caller's.
  for (auto& job : {running, queued, here}) EXPECT_EQ(job->WaitAnswer(), std::vector<bool>{true});
  running->Release();
  here->Release();
  caller.join();
  stopper.join();
  EXPECT_EQ(running->Answers().size(), 1u);
  EXPECT_EQ(here->Answers().size(), 1u);
  EXPECT_EQ(pool->Pending(), 0u);

  auto afterStop = std::make_shared<Job>();
  pool->Submit(afterStop);
  EXPECT_EQ(afterStop->Answers(), std::vector<bool>{true}) << "answered at once on the caller's thread";
  EXPECT_EQ(afterStop->decided.load(), 0);
}

TEST(DeadlinePoolTest, RunHereDecidesOnTheCallersThreadUnderTheSameDeadline) {
  DeadlinePool pool(1, 60ms);
  // In time: decided and answered on this thread, once.
  auto quick = std::make_shared<Job>();
  pool.RunHere(quick);
  EXPECT_EQ(quick->decided.load(), 1);
  EXPECT_EQ(quick->Answers(), std::vector<bool>{false});

  // Late: the watchdog answers while the caller is still deciding, and the
  // late decision is not answered a second time.
  auto slow = std::make_shared<Job>(true);
  std::thread caller([&] { pool.RunHere(slow); });
  EXPECT_EQ(slow->WaitAnswer(), std::vector<bool>{true});
  slow->Release();
  caller.join();
  EXPECT_EQ(slow->Answers(), std::vector<bool>{true});
  EXPECT_EQ(pool.Stats().late, 1u);

  // A job decided here while the worker is stuck is not held behind it.
  auto stuck = std::make_shared<Job>(true);
  pool.Submit(stuck);
  auto beside = std::make_shared<Job>();
  pool.RunHere(beside);
  EXPECT_EQ(beside->Answers(), std::vector<bool>{false});
  stuck->Release();
  EXPECT_EQ(stuck->WaitAnswer().size(), 1u);

  pool.Stop();
  auto afterStop = std::make_shared<Job>();
  pool.RunHere(afterStop);
  EXPECT_EQ(afterStop->Answers(), std::vector<bool>{true}) << "answered at once after Stop";
  EXPECT_EQ(afterStop->decided.load(), 0);
  EXPECT_EQ(pool.Pending(), 0u);
}

}  // namespace
