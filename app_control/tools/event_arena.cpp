#include "app_control/tools/event_arena.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <functional>

namespace tov::app_control::tools {

zel::RefPtr<zel::IAllocator> EventArena::Create() {
  EventArena* arena = zel::detail::CreateObjectImplWith<EventArena, zel::abi_v2_allocator>();
  return zel::RefPtr<zel::IAllocator>::Adopt(arena);
}

bool EventArena::Owns(const void* pointer) const noexcept {
  // Compared as addresses: the pointer may come from anywhere.
  const std::less<const void*> before;
  return !before(pointer, m_room) && before(pointer, m_room + kRoom);
}

void* EventArena::Alloc(std::size_t size) {
  constexpr std::size_t kAlign = alignof(std::max_align_t);
  const std::size_t rounded = (std::max<std::size_t>(size, 1) + kAlign - 1) & ~(kAlign - 1);
  // Relaxed is enough: the bytes handed out are the caller's alone, and the
  // counter only has to hand each of them out once.
  std::size_t used = m_used.load(std::memory_order_relaxed);
  while (rounded <= kRoom - used) {
    if (m_used.compare_exchange_weak(used, used + rounded, std::memory_order_relaxed)) return m_room + used;
  }
  return std::malloc(size == 0 ? 1 : size);
}

void* EventArena::Realloc(void* pointer, std::size_t size) {
  if (pointer == nullptr) return Alloc(size);
  if (!Owns(pointer)) return std::realloc(pointer, size);
  // The old size isn't kept; copying up to the room's end never reads
  // outside it, and the bytes past the old block don't matter.
  void* moved = Alloc(size);
  if (moved != nullptr) {
    const auto* from = static_cast<const unsigned char*>(pointer);
    std::memmove(moved, from, std::min<std::size_t>(size, static_cast<std::size_t>(m_room + kRoom - from)));
  }
  return moved;
}

void EventArena::Free(void* pointer) {
  if (pointer != nullptr && !Owns(pointer)) std::free(pointer);
}

}  // namespace tov::app_control::tools
