// host::engine::BoundedQueue: hands items from threads that must never wait
// (the ones deciding program starts) to one that may (the one publishing
// what was decided). Push never blocks: when the queue is full the item is
// dropped and counted. Pop waits for an item or for Close; after Close the
// items still queued are handed out, then Pop says there is no more.
//
// PopBatch lets a consumer take items in batches: once it holds an item it
// lingers a moment for more, and meanwhile Push wakes nobody (unless the
// queue fills up to half). A steady stream then costs the producers no
// wake-up per item, and the consumer one per batch.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <mutex>
#include <chrono>
#include <optional>
#include <utility>
#include <vector>

namespace host::engine {

template <class T>
class BoundedQueue {
 public:
  explicit BoundedQueue(std::size_t capacity) : m_capacity(capacity) {}
  BoundedQueue(const BoundedQueue&) = delete;
  BoundedQueue& operator=(const BoundedQueue&) = delete;

  // False, with the item dropped and counted, when the queue is full or closed.
  bool Push(T item) {
    bool wake = false;
    const bool pushed = PushWithoutWake(std::move(item), &wake);
    if (wake) Wake();
    return pushed;
  }

  // As Push, but the consumer is not woken here: `wakeDue` says whether
  // the caller must call Wake once its urgent work is done.
  bool PushWithoutWake(T item, bool* wakeDue) {
    std::lock_guard lock(m_mutex);
    *wakeDue = false;
    if (m_closed || m_items.size() >= m_capacity) {
      m_dropped.fetch_add(1);
      return false;
    }
    m_items.push_back(std::move(item));
    *wakeDue = m_waiting == Waiting::ForItem || (m_waiting == Waiting::ForMore && m_items.size() >= HighWater());
    return true;
  }
  void Wake() { m_ready.notify_one(); }

  // The oldest item; waits for one. Empty once the queue is closed and drained.
  std::optional<T> Pop() {
    std::unique_lock lock(m_mutex);
    Wait(lock, Waiting::ForItem, [this] { return m_closed || !m_items.empty(); });
    if (m_items.empty()) return std::nullopt;
    T item = std::move(m_items.front());
    m_items.pop_front();
    return item;
  }

  // Waits for an item, then up to `linger` for more (cut short by Close or
  // a half-full queue), and moves every queued item, oldest first, to the
  // end of `out`. False once the queue is closed and drained.
  bool PopBatch(std::vector<T>& out, std::chrono::milliseconds linger) {
    std::unique_lock lock(m_mutex);
    Wait(lock, Waiting::ForItem, [this] { return m_closed || !m_items.empty(); });
    if (m_items.empty()) return false;
    if (linger.count() > 0 && !m_closed && m_items.size() < HighWater()) {
      const auto until = std::chrono::steady_clock::now() + linger;
      m_waiting = Waiting::ForMore;
      m_ready.wait_until(lock, until, [this] { return m_closed || m_items.size() >= HighWater(); });
      m_waiting = Waiting::No;
    }
    out.reserve(out.size() + m_items.size());
    for (T& item : m_items) out.push_back(std::move(item));
    m_items.clear();
    return true;
  }

  // Refuses further pushes and wakes the consumer.
  void Close() {
    {
      std::lock_guard lock(m_mutex);
      m_closed = true;
    }
    m_ready.notify_all();
  }

  std::size_t Size() const {
    std::lock_guard lock(m_mutex);
    return m_items.size();
  }
  std::uint64_t Dropped() const noexcept { return m_dropped.load(); }
  std::size_t Capacity() const noexcept { return m_capacity; }

 private:
  enum class Waiting { No, ForItem, ForMore };

  std::size_t HighWater() const noexcept { return m_capacity / 2 > 0 ? m_capacity / 2 : 1; }
  template <class Predicate>
  void Wait(std::unique_lock<std::mutex>& lock, Waiting why, Predicate ready) {
    while (!ready()) {
      m_waiting = why;
      m_ready.wait(lock);
      m_waiting = Waiting::No;
    }
  }

  const std::size_t m_capacity;
  mutable std::mutex m_mutex;
  Waiting m_waiting = Waiting::No;  // what the consumer waits for; Push wakes it only when that came
  std::condition_variable m_ready;
  std::deque<T> m_items;
  bool m_closed = false;
  std::atomic<std::uint64_t> m_dropped{0};
};

}  // namespace host::engine
