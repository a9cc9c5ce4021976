// The event arena: blocks within its room never overlap and keep their
// alignment, blocks past it come from the heap, a grown block keeps its
// text, and strings made in it keep it (and the module) alive.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <vector>

#include "app_control/tools/event_arena.h"
#include "zel/module_lock.h"
#include "zel/types/string.h"

namespace {

using tov::app_control::tools::EventArena;

TEST(EventArenaTest, HandsOutDisjointAlignedBlocksThenFallsBackToTheHeap) {
  const auto arena = EventArena::Create();
  auto* self = static_cast<EventArena*>(arena.Get());
  const std::size_t sizes[] = {1, 40, 130, 17, 0, 64};
  std::vector<unsigned char*> blocks;
  for (std::size_t size : sizes) {
    auto* p = static_cast<unsigned char*>(arena->Alloc(size));
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(p) % alignof(std::max_align_t), 0u) << size;
    std::memset(p, static_cast<int>(blocks.size()), size);
    blocks.push_back(p);
  }
  // Each block still holds what was written into it: none overlapped the next.
  for (std::size_t i = 0; i < blocks.size(); ++i)
    for (std::size_t b = 0; b < sizes[i]; ++b) ASSERT_EQ(blocks[i][b], i) << "block " << i;
  const std::size_t used = self->Used();
  EXPECT_LE(used, 252u + 6 * alignof(std::max_align_t)) << "each block costs its size and one alignment step";

  void* big = arena->Alloc(EventArena::kRoom);  // can't fit: the heap's
  ASSERT_NE(big, nullptr);
  EXPECT_EQ(self->Used(), used);
  std::memset(big, 1, EventArena::kRoom);
  arena->Free(big);  // a heap block really goes back (the sanitizer checks)

  std::strcpy(reinterpret_cast<char*>(blocks[2]), "kept across a move");
  auto* grown = static_cast<char*>(arena->Realloc(blocks[2], 400));
  EXPECT_STREQ(grown, "kept across a move");
  arena->Free(grown);
}

TEST(EventArenaTest, AStringMadeInItKeepsTheArenaAndTheModuleAlive) {
  const std::uint32_t locksBefore = zel::ModuleLockCount.load();
  zel::wstring_t kept;
  {
    const auto arena = EventArena::Create();
    kept = zel::wstring_t(std::u16string_view(u"/usr/lib/firefox-esr/firefox-esr"), arena.Get());
  }
  EXPECT_GT(zel::ModuleLockCount.load(), locksBefore);
  const zel::wstring_t copy = kept;  // a copy takes its memory from the same arena
  EXPECT_EQ(copy.view(), u"/usr/lib/firefox-esr/firefox-esr");
  kept = zel::wstring_t();
  EXPECT_EQ(copy.view(), u"/usr/lib/firefox-esr/firefox-esr");
}

}  // namespace
