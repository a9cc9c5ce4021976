#include "host/engine/deadline_pool.h"

#include <algorithm>
#include <utility>

namespace host::engine {

DeadlinePool::DeadlinePool(std::size_t workers, std::chrono::milliseconds deadline) : m_deadline(deadline) {
  if (workers == 0) workers = 1;
  m_workers.reserve(workers);
  try {
    for (std::size_t i = 0; i < workers; ++i) m_workers.emplace_back([this] { Work(); });
    m_watchdog = std::thread([this] { Watch(); });
  } catch (...) {
    Stop();
    throw;
  }
}

DeadlinePool::~DeadlinePool() { Stop(); }

bool DeadlinePool::Track(const SlotPtr& slot, bool queue) {
  {
    std::lock_guard lock(m_mutex);
    if (m_stopping) return false;
    slot->deadline = std::chrono::steady_clock::now() + m_deadline;
    if (queue) m_queue.push_back(slot);
    m_inFlight.push_back(slot);
  }
  // Woken after the lock is gone, so that it doesn't wake only to wait for
  // it. The watchdog is not woken: it looks again within one deadline anyway.
  if (queue) m_workReady.notify_one();
  return true;
}

void DeadlinePool::Submit(std::shared_ptr<DeadlineJob> job) {
  auto slot = std::make_shared<Slot>();
  slot->job = std::move(job);
  m_submitted.fetch_add(1);
  m_pending.fetch_add(1);
  if (!Track(slot, true)) AnswerTimedOut(*slot);
}

void DeadlinePool::RunHere(std::shared_ptr<DeadlineJob> job) {
  auto slot = std::make_shared<Slot>();
  slot->job = std::move(job);
  m_submitted.fetch_add(1);
  m_pending.fetch_add(1);
  if (!Track(slot, false)) {
    AnswerTimedOut(*slot);
    return;
  }
  Finish(*slot);
}

void DeadlinePool::Finish(Slot& slot) {
  slot.job->Decide();
  if (slot.Claim()) {
    m_inTime.fetch_add(1);
    m_pending.fetch_sub(1);
    slot.job->Answer(false);
  } else {
    m_late.fetch_add(1);
  }
}

void DeadlinePool::AnswerTimedOut(Slot& slot) {
  if (!slot.Claim()) return;
  m_timedOut.fetch_add(1);
  m_pending.fetch_sub(1);
  slot.job->Answer(true);
}

void DeadlinePool::Work() {
  for (;;) {
    SlotPtr slot;
    {
      std::unique_lock lock(m_mutex);
      m_workReady.wait(lock, [this] { return m_stopping || !m_queue.empty(); });
      if (m_stopping) return;
      slot = std::move(m_queue.front());
      m_queue.pop_front();
    }
    if (slot->answered.load()) continue;  // its deadline passed while it waited
    Finish(*slot);
  }
}

void DeadlinePool::Watch() {
  std::unique_lock lock(m_mutex);
  for (;;) {
    if (m_stopping) return;
    // Answered jobs at the front are forgotten; deadlines grow from front
    // to back, so the front is always the next one to expire.
    while (!m_inFlight.empty() && m_inFlight.front()->answered.load()) m_inFlight.pop_front();
    if (m_inFlight.empty()) {
      // A job tracked from now on has its deadline after this wait ends, so
      // nobody needs to wake the watchdog for it: one wake-up per deadline
      // while idle, instead of one more thread woken for every start.
      m_watchWake.wait_for(lock, std::max(m_deadline, std::chrono::milliseconds(1)));
      continue;
    }
    const SlotPtr front = m_inFlight.front();
    if (std::chrono::steady_clock::now() < front->deadline) {
      m_watchWake.wait_until(lock, front->deadline);
      continue;
    }
    m_inFlight.pop_front();
    lock.unlock();
    AnswerTimedOut(*front);
    lock.lock();
  }
}

void DeadlinePool::Stop() {
  std::deque<SlotPtr> unanswered;
  {
    std::lock_guard lock(m_mutex);
    if (m_stopped) return;
    m_stopped = true;
    m_stopping = true;
    unanswered.swap(m_inFlight);
    m_queue.clear();
  }
  m_workReady.notify_all();
  m_watchWake.notify_all();
  if (m_watchdog.joinable()) m_watchdog.join();
  for (const SlotPtr& slot : unanswered) AnswerTimedOut(*slot);
  for (std::thread& t : m_workers)
    if (t.joinable()) t.join();
}

std::size_t DeadlinePool::Pending() const { return m_pending.load(); }

DeadlinePoolStats DeadlinePool::Stats() const {
  return {m_submitted.load(), m_inTime.load(), m_timedOut.load(), m_late.load()};
}

}  // namespace host::engine
