// host::engine::BoundedQueue: hands items from threads that must never wait
// (the ones deciding program starts) to one that may (the one publishing
// what was decided). Push never blocks: when the queue is full the item is
// dropped and counted. Pop waits for an item or for Close; after Close the
// items still queued are handed out, then Pop says there is no more.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <mutex>
#include <optional>
#include <utility>

namespace host::engine {

template <class T>
class BoundedQueue {
 public:
  explicit BoundedQueue(std::size_t capacity) : m_capacity(capacity) {}
  BoundedQueue(const BoundedQueue&) = delete;
  BoundedQueue& operator=(const BoundedQueue&) = delete;

  // False, with the item dropped and counted, when the queue is full or closed.
  bool Push(T item) {
    {
      std::lock_guard lock(m_mutex);
      if (m_closed || m_items.size() >= m_capacity) {
        m_dropped.fetch_add(1);
        return false;
      }
      m_items.push_back(std::move(item));
    }
    m_ready.notify_one();
    return true;
  }

  // The oldest item; waits for one. Empty once the queue is closed and drained.
  std::optional<T> Pop() {
    std::unique_lock lock(m_mutex);
    m_ready.wait(lock, [this] { return m_closed || !m_items.empty(); });
    if (m_items.empty()) return std::nullopt;
    T item = std::move(m_items.front());
    m_items.pop_front();
    return item;
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
  const std::size_t m_capacity;
  mutable std::mutex m_mutex;
  std::condition_variable m_ready;
  std::deque<T> m_items;
  bool m_closed = false;
  std::atomic<std::uint64_t> m_dropped{0};
};

}  // namespace host::engine
