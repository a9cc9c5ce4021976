// tools::EventArena: the memory of one product event. An event is a field
// list and a dozen short strings that all live exactly as long as the event;
// taking them from one block made for it costs one allocation per event
// instead of one per field. It is an IAllocator like any other, so whatever
// keeps a string of the event (a publisher that copies it for later) keeps
// a reference, and the arena dies with the last one. Blocks past its room
// come from malloc and go back to free.
#pragma once

#include <atomic>
#include <cstddef>

#include "zel/iallocator.h"
#include "zel/noncopyable.h"
#include "zel/rtl/objbase.h"
#include "zel/rtl/objclient.h"
#include "zel/types/allocator.h"

namespace tov::app_control::tools {

class EventArena : public zel::object::Ifaces<zel::IAllocator>, public zel::NonCopyable {
 public:
  // Room for a full event of long paths and names: eighteen fields and their text.
  static constexpr std::size_t kRoom = 3072;

  // A new arena, held once by the returned reference. Raises std::bad_alloc.
  static zel::RefPtr<zel::IAllocator> Create();

  // Thread safe: a copy of the event may be made on any thread.
  void* Alloc(std::size_t size) override;
  void* Realloc(void* pointer, std::size_t size) override;
  void Free(void* pointer) override;

  // Bytes of the room handed out so far, for tests.
  std::size_t Used() const noexcept { return m_used.load(std::memory_order_relaxed); }

 protected:
  EventArena() = default;
  ~EventArena() = default;

 private:
  bool Owns(const void* pointer) const noexcept;

  // Only ever grows: a block freed inside the room is given back with the arena.
  std::atomic<std::size_t> m_used{0};
  alignas(alignof(std::max_align_t)) unsigned char m_room[kRoom];
};

}  // namespace tov::app_control::tools
