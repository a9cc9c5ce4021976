// zel::EventDispatcher<Subscription, Events>: a subscriber list with
// copy-on-write, so that a delivery holds the lock only to pick up the
// current list and runs every sink without any lock held. A sink may
// subscribe or unsubscribe from inside a delivery: the change makes a new
// list and the running delivery goes on over the old one.
//
// A delivery costs one lock, two atomic operations and no allocation.
#pragma once

#include <pthread.h>

#include <atomic>
#include <cstdint>
#include <exception>
#include <new>
#include <stdexcept>

#include "zel/noncopyable.h"
#include "zel/rtl/objclient.h"
#include "zel/types/vector.h"

namespace zel {

namespace detail {

// Unlocks on scope exit, on every path.
class PthreadLock : NonCopyable {
 public:
  explicit PthreadLock(pthread_mutex_t& m) noexcept : m_mutex(m) { pthread_mutex_lock(&m_mutex); }
  ~PthreadLock() { pthread_mutex_unlock(&m_mutex); }

 private:
  pthread_mutex_t& m_mutex;
};

// Maps a failure while changing the list to the code returned to the caller.
template <class F>
result_t GuardListChange(F&& change) {
  try {
    return change();
  } catch (const std::bad_alloc&) {
    return result::OutOfMemory;
  } catch (const std::length_error&) {
    return result::InvalidSize;
  } catch (const std::exception&) {
    return result::ExceptionHasNoResultCode;
  }
  // Anything else is not ours to convert and goes on to the caller.
}

}  // namespace detail

template <class Subscription, class Events>
class EventDispatcher : public Subscription {
  // One counted block. Holders: the dispatcher, and each delivery under way.
  struct SubscriberList {
    std::atomic<std::uint32_t> count{1};
    types::vector_t<Events*> sinks;  // each an owned reference; null allocator, malloc/free
  };

 public:
  EventDispatcher() : m_list(new SubscriberList) {
    pthread_mutexattr_t attr;
    pthread_mutexattr_init(&attr);
    pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_RECURSIVE);
    pthread_mutex_init(&m_mutex, &attr);
    pthread_mutexattr_destroy(&attr);
  }

  ~EventDispatcher() {
    pthread_mutex_destroy(&m_mutex);
    ReleaseList(m_list);
  }

  result_t Subscribe(Events* sink) override {
    // A null sink would only fail later, inside somebody else's delivery.
    if (sink == nullptr) return result::InvalidArgument;
    RefPtr<Events> hold(sink);
    SubscriberList* old = nullptr;
    const result_t r = detail::GuardListChange([&]() -> result_t {
      detail::PthreadLock lock(m_mutex);
      if (m_list->count.load(std::memory_order_seq_cst) == 1) {
        // Nobody else sees this list: append in place, growing by the
        // vector's own policy. The reference is taken only once the element
        // stands, so a failed growth leaves nothing to undo.
        m_list->sinks.push_back(sink);
        sink->AddRef();
        return 0;
      }
      SubscriberList* fresh = CopyList(m_list, nullptr, m_list->sinks.size() + 1);
      sink->AddRef();
      fresh->sinks.push_back(sink);  // room reserved by CopyList
      old = std::exchange(m_list, fresh);
      return 0;
    });
    if (old != nullptr) ReleaseList(old);
    return r;
  }

  result_t Unsubscribe(Events* sink) override {
    RefPtr<Events> hold(sink);
    SubscriberList* old = nullptr;
    const result_t r = detail::GuardListChange([&]() -> result_t {
      detail::PthreadLock lock(m_mutex);
      auto& sinks = m_list->sinks;
      std::size_t index = 0;
      while (index < sinks.size() && sinks[index] != sink) ++index;
      if (index == sinks.size()) return result::NotFound;
      if (m_list->count.load(std::memory_order_seq_cst) == 1) {
        Events* removed = sinks[index];
        for (std::size_t i = index + 1; i < sinks.size(); ++i) sinks[i - 1] = sinks[i];
        sinks.pop_back();
        removed->Release();
        return 0;
      }
      SubscriberList* fresh = CopyList(m_list, sinks[index], sinks.size() - 1, index);
      old = std::exchange(m_list, fresh);
      return 0;
    });
    if (old != nullptr) ReleaseList(old);
    return r;
  }

 protected:
  // Calls `op(args...)` on every sink of the current list, front to back.
  // Sink results are ignored; a sink's exception leaves after the list is
  // released, and the later sinks miss that event.
  template <class Op, class... Args>
  result_t Deliver(Op op, Args... args) {
    SubscriberList* list;
    {
      detail::PthreadLock lock(m_mutex);
      list = m_list;
      list->count.fetch_add(1, std::memory_order_seq_cst);
    }
    struct Holder {
      SubscriberList* list;
      ~Holder() { ReleaseList(list); }
    } holder{list};
    for (Events* sink : list->sinks) (sink->*op)(args...);
    return 0;
  }

 private:
  // A new block holding `capacity` room and every sink of `from` but the one
  // at `skipIndex` (when `skip` is set), each with a reference of its own.
  static SubscriberList* CopyList(SubscriberList* from, Events* skip, std::size_t capacity,
                                  std::size_t skipIndex = SIZE_MAX) {
    auto* fresh = new SubscriberList;
    try {
      fresh->sinks.reserve(capacity);
    } catch (...) {
      delete fresh;
      throw;
    }
    for (std::size_t i = 0; i < from->sinks.size(); ++i) {
      if (skip != nullptr && i == skipIndex) continue;
      Events* s = from->sinks[i];
      s->AddRef();
      fresh->sinks.push_back(s);  // within the reserved room: cannot throw
    }
    return fresh;
  }

  static void ReleaseList(SubscriberList* list) noexcept {
    if (list->count.fetch_sub(1, std::memory_order_seq_cst) != 1) return;
    for (Events* s : list->sinks) s->Release();
    delete list;
  }

  // Null in the dispatchers of this module; the slot stays so that the
  // members keep their place, and a holder releases whatever it may hold.
  RefPtr<IObject> m_reference;
  SubscriberList* m_list;
  pthread_mutex_t m_mutex;
};

}  // namespace zel
