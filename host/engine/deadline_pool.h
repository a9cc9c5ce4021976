// host::engine::DeadlinePool: a few worker threads that decide jobs under a
// deadline. Every submitted job is answered exactly once: by its own
// decision when that comes in time, otherwise by the pool's watchdog when
// the deadline passes, or at Stop. A decision that comes too late is thrown
// away. So a caller waiting on an answer (a program start held by the
// kernel) waits no longer than the deadline, whatever a decision does: a
// file that hangs on read, a lock held too long, all workers busy.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

namespace host::engine {

class DeadlineJob {
 public:
  virtual ~DeadlineJob() = default;
  // Runs on a worker, unless the deadline passed before a worker was free.
  virtual void Decide() = 0;
  // Called exactly once: timedOut false right after Decide, when it came
  // in time; true on the watchdog when the deadline passed first, or on the
  // thread that calls Stop. Must not block for long.
  virtual void Answer(bool timedOut) = 0;
};

struct DeadlinePoolStats {
  std::uint64_t submitted = 0;
  std::uint64_t inTime = 0;    // answered by their decision
  std::uint64_t timedOut = 0;  // answered by the watchdog or at Stop
  std::uint64_t late = 0;      // decisions thrown away, their job already answered
};

class DeadlinePool {
 public:
  DeadlinePool(std::size_t workers, std::chrono::milliseconds deadline);
  DeadlinePool(const DeadlinePool&) = delete;
  DeadlinePool& operator=(const DeadlinePool&) = delete;
  // Stops (see Stop).
  ~DeadlinePool();

  // Queues `job`; its deadline counts from now. After Stop the job is
  // answered at once, timed out, on the caller's thread.
  void Submit(std::shared_ptr<DeadlineJob> job);

  // Decides `job` on the calling thread, under the same deadline as a
  // submitted one: the watchdog answers it when the decision is late, and
  // Stop answers it at once. Saves the hand-over to a worker when the
  // caller is free to decide. After Stop: answered at once, timed out.
  void RunHere(std::shared_ptr<DeadlineJob> job);

  // Answers every job not answered yet as timed out, then waits for the
  // workers to finish the decisions they are in. Idempotent.
  void Stop();

  // Jobs submitted and not answered yet.
  std::size_t Pending() const;
  DeadlinePoolStats Stats() const;
  std::chrono::milliseconds Deadline() const noexcept { return m_deadline; }

 private:
  struct Slot {
    std::shared_ptr<DeadlineJob> job;
    std::chrono::steady_clock::time_point deadline;
    std::atomic<bool> answered{false};
    bool Claim() noexcept { return !answered.exchange(true); }
  };
  using SlotPtr = std::shared_ptr<Slot>;

  void Work();
  void Watch();
  // Enters `slot` among those the watchdog keeps; false after Stop.
  bool Track(const SlotPtr& slot, bool queue);
  void Finish(Slot& slot);
  void AnswerTimedOut(Slot& slot);

  const std::chrono::milliseconds m_deadline;
  mutable std::mutex m_mutex;
  std::condition_variable m_workReady;
  std::condition_variable m_watchWake;
  std::deque<SlotPtr> m_queue;     // not yet taken by a worker
  std::deque<SlotPtr> m_inFlight;  // every job not known answered, oldest (earliest deadline) first
  bool m_stopping = false;
  bool m_stopped = false;
  std::atomic<std::uint64_t> m_submitted{0};
  std::atomic<std::uint64_t> m_inTime{0};
  std::atomic<std::uint64_t> m_timedOut{0};
  std::atomic<std::uint64_t> m_late{0};
  std::atomic<std::size_t> m_pending{0};
  std::vector<std::thread> m_workers;
  std::thread m_watchdog;  // last: starts once everything above exists
};

}  // namespace host::engine
